#include "support/KiteTest.h"

#include <shlobj.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace kitetest {

std::string ExeFolder() {
    char self[MAX_PATH] = {};
    const std::string path(self, ::GetModuleFileNameA(nullptr, self, MAX_PATH));
    return path.substr(0, path.find_last_of('\\'));
}

bool Exists(const std::string& path) {
    return ::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

void WriteFileBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    if (!out) throw std::runtime_error("cannot write " + path);
}

void CreateFolders(const std::string& path) {
    const int status = ::SHCreateDirectoryExA(nullptr, path.c_str(), nullptr);
    if (status != ERROR_SUCCESS && status != ERROR_ALREADY_EXISTS) {
        throw std::runtime_error("cannot create " + path);
    }
}

void RemoveTree(const std::string& path) {
    WIN32_FIND_DATAA entry;
    HANDLE find = ::FindFirstFileA((path + "\\*").c_str(), &entry);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            const std::string name = entry.cFileName;
            if (name == "." || name == "..") continue;
            const std::string child = path + "\\" + name;
            ::SetFileAttributesA(child.c_str(), FILE_ATTRIBUTE_NORMAL);
            if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                RemoveTree(child);
            } else {
                ::DeleteFileA(child.c_str());
            }
        } while (::FindNextFileA(find, &entry));
        ::FindClose(find);
    }
    ::RemoveDirectoryA(path.c_str());
}

void CopyFileTo(const std::string& from, const std::string& to) {
    if (!::CopyFileA(from.c_str(), to.c_str(), FALSE)) {
        throw std::runtime_error("cannot copy " + from + " to " + to);
    }
}

std::string FixturePath(const std::string& name) { return ExeFolder() + "\\fixtures\\" + name; }

TempFolder::TempFolder(const std::string& tag) {
    static std::atomic<int> counter{0};
    path_ = "C:\\kitetest\\" + tag + "-" + std::to_string(::GetCurrentProcessId()) + "-" +
            std::to_string(++counter);
    RemoveTree(path_);
    CreateFolders(path_);
}

TempFolder::~TempFolder() { RemoveTree(path_); }

RegistryValue::RegistryValue(const std::string& key, const std::string& name)
    : key_(key), name_(name) {
    HKEY handle = nullptr;
    if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, key_.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) {
        return;
    }
    DWORD bytes = 0;
    if (::RegQueryValueExA(handle, name_.c_str(), nullptr, &type_, nullptr, &bytes) ==
        ERROR_SUCCESS) {
        saved_.resize(bytes);
        ::RegQueryValueExA(handle, name_.c_str(), nullptr, &type_,
                           reinterpret_cast<BYTE*>(&saved_[0]), &bytes);
        existed_ = true;
    }
    ::RegCloseKey(handle);
}

RegistryValue::~RegistryValue() {
    if (existed_) {
        Set(type_, saved_);
    } else {
        Delete();
    }
}

void RegistryValue::Set(DWORD type, const std::string& bytes) {
    HKEY handle = nullptr;
    if (::RegCreateKeyExA(HKEY_LOCAL_MACHINE, key_.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr,
                          &handle, nullptr) != ERROR_SUCCESS) {
        throw std::runtime_error("cannot create HKLM\\" + key_);
    }
    ::RegSetValueExA(handle, name_.c_str(), 0, type, reinterpret_cast<const BYTE*>(bytes.data()),
                     static_cast<DWORD>(bytes.size()));
    ::RegCloseKey(handle);
}

void RegistryValue::SetString(const std::string& text) {
    Set(REG_SZ, std::string(text.c_str(), text.size() + 1));
}

void RegistryValue::SetDword(DWORD value) {
    Set(REG_DWORD, std::string(reinterpret_cast<const char*>(&value), sizeof value));
}

void RegistryValue::Delete() {
    HKEY handle = nullptr;
    if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, key_.c_str(), 0, KEY_WRITE, &handle) == ERROR_SUCCESS) {
        ::RegDeleteValueA(handle, name_.c_str());
        ::RegCloseKey(handle);
    }
}

RegistryKey::RegistryKey(const std::string& key) {
    for (std::string::size_type end = key.find('\\');; end = key.find('\\', end + 1)) {
        const std::string part = key.substr(0, end);
        HKEY handle = nullptr;
        if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, part.c_str(), 0, KEY_READ, &handle) !=
            ERROR_SUCCESS) {
            created_ = part;
            break;
        }
        ::RegCloseKey(handle);
        if (end == std::string::npos) break;
    }
    HKEY handle = nullptr;
    if (::RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr,
                          &handle, nullptr) != ERROR_SUCCESS) {
        throw std::runtime_error("cannot create HKLM\\" + key);
    }
    ::RegCloseKey(handle);
}

RegistryKey::~RegistryKey() {
    if (!created_.empty()) ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, created_.c_str());
}

LogTest::LogTest() : folder_("log"), dataPath_(kCommonKey, "CommonFilesDataPath") {
    CreateFolders(DataFolder() + "\\twupdate\\log");
    dataPath_.SetString(DataFolder());
}

std::string LogTest::LogPath() const { return DataFolder() + "\\twupdate\\log\\CRITICALFIXES.LOG"; }

std::string LogTest::ReadMaskedLog() const { return MaskStamps(ReadLog()); }

std::string MaskStamps(const std::string& log) {
    static const std::regex stamp(
        R"(\d{4}-\d{2}-\d{2}\.\d{2}:\d{2}:\d{2}( : (Entering|Exiting) ))");
    return std::regex_replace(log, stamp, "<stamp>$1");
}

std::string Trail(const std::string& scope, const std::string& messages) {
    return "<stamp> : Entering " + scope + "\r\n" + messages + "<stamp> : Exiting " + scope +
           "\r\n";
}

KiteDll::KiteDll() : module_(::LoadLibraryA((ExeFolder() + "\\KITEUpdate.dll").c_str())) {
    if (module_ == nullptr) throw std::runtime_error("cannot load KITEUpdate.dll");
}

KiteDll::~KiteDll() { ::FreeLibrary(module_); }

FARPROC KiteDll::ByName(const char* name) const { return ::GetProcAddress(module_, name); }

FARPROC KiteDll::ByOrdinal(WORD ordinal) const {
    return ::GetProcAddress(module_, MAKEINTRESOURCEA(ordinal));
}

std::string Quote(const std::string& text) { return "\"" + text + "\""; }

HANDLE StartProcess(const std::string& commandLine) {
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    std::string line = commandLine;
    if (!::CreateProcessA(nullptr, &line[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                          &process)) {
        throw std::runtime_error("cannot start " + commandLine);
    }
    ::CloseHandle(process.hThread);
    return process.hProcess;
}

ProcessResult RunProcess(const std::string& commandLine) {
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!::CreatePipe(&readEnd, &writeEnd, &inherit, 0)) throw std::runtime_error("pipe");
    ::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = writeEnd;
    startup.hStdError = writeEnd;
    PROCESS_INFORMATION process = {};
    std::string line = commandLine;
    // Over thousands of starts a Wine server now and then refuses one: the new process dies in
    // its own start-up, before any of its code runs. The programs started here are test hosts
    // and fixtures, not the subject, so a refused start is tried again and reported.
    BOOL started = FALSE;
    DWORD error = 0;
    for (int attempt = 0; attempt < 3 && !started; ++attempt) {
        if (attempt > 0) {
            std::fprintf(stderr, "process start refused (error %lu), trying again: %s\n", error,
                         commandLine.c_str());
            ::Sleep(200);
        }
        started = ::CreateProcessA(nullptr, &line[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                   &startup, &process);
        error = ::GetLastError();
    }
    ::CloseHandle(writeEnd);
    if (!started) {
        ::CloseHandle(readEnd);
        throw std::runtime_error("cannot start " + commandLine + " (error " +
                                 std::to_string(error) + ")");
    }
    // Output is collected until the child exits, not until the pipe closes: a process that the
    // child starts can inherit the pipe and outlive it (Wine starts its desktop process,
    // explorer.exe, on a program's first COM apartment or window).
    ProcessResult result = {0, ""};
    char chunk[4096];
    for (bool exited = false; !exited;) {
        exited = ::WaitForSingleObject(process.hProcess, 10) == WAIT_OBJECT_0;
        DWORD available = 0;
        DWORD count = 0;
        while (::PeekNamedPipe(readEnd, nullptr, 0, nullptr, &available, nullptr) &&
               available > 0 &&
               ::ReadFile(readEnd, chunk, sizeof chunk < available ? sizeof chunk : available,
                          &count, nullptr) &&
               count > 0) {
            result.output.append(chunk, count);
        }
    }
    ::GetExitCodeProcess(process.hProcess, &result.exitCode);
    ::CloseHandle(process.hProcess);
    ::CloseHandle(process.hThread);
    ::CloseHandle(readEnd);
    return result;
}

namespace {

constexpr DWORD kChildWaitMs = 60000;

HANDLE CreateNamed(HANDLE handle, const std::string& name) {
    if (handle == nullptr) throw std::runtime_error("cannot create " + name);
    return handle;
}

}  // namespace

HeldProgram::HeldProgram() {
    static std::atomic<int> counter{0};
    name_ =
        "kitechild-" + std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(++counter);
    alive_ = CreateNamed(::CreateMutexA(nullptr, FALSE, (name_ + ".alive").c_str()), name_);
    ready_ = CreateNamed(::CreateEventA(nullptr, TRUE, FALSE, (name_ + ".ready").c_str()), name_);
    stop_ = CreateNamed(::CreateEventA(nullptr, TRUE, FALSE, (name_ + ".stop").c_str()), name_);
}

HeldProgram::~HeldProgram() {
    Stop();
    ::CloseHandle(alive_);
    ::CloseHandle(ready_);
    ::CloseHandle(stop_);
}

std::string HeldProgram::ProgramPath() { return ExeFolder() + "\\kitechild.exe"; }

void HeldProgram::Start(const std::string& exePath, const std::string& file) {
    process_ =
        StartProcess(Quote(exePath) + " " + Arguments() + (file.empty() ? "" : " " + Quote(file)));
    WaitUntilRunning();
}

void HeldProgram::WaitUntilRunning() {
    // A program that ends instead of holding (not kitechild, for instance) fails at once.
    HANDLE waits[] = {ready_, process_};
    const DWORD count = process_ != nullptr ? 2 : 1;
    if (::WaitForMultipleObjects(count, waits, FALSE, kChildWaitMs) != WAIT_OBJECT_0) {
        throw std::runtime_error(name_ + " did not come up");
    }
}

void HeldProgram::Stop() {
    ::SetEvent(stop_);
    // Only a child that came up owns "alive"; once it has gone the wait finds the mutex abandoned.
    if (::WaitForSingleObject(ready_, 0) == WAIT_OBJECT_0) {
        const DWORD gone = ::WaitForSingleObject(alive_, kChildWaitMs);
        if (gone == WAIT_ABANDONED || gone == WAIT_OBJECT_0) ::ReleaseMutex(alive_);
        ::ResetEvent(ready_);
    }
    if (process_ != nullptr) {
        if (::WaitForSingleObject(process_, kChildWaitMs) != WAIT_OBJECT_0) {
            ::TerminateProcess(process_, 1);
        }
        ::CloseHandle(process_);
        process_ = nullptr;
    }
}

}  // namespace kitetest
