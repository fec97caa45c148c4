#include "support/KiteTest.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace kitetest {

namespace {

constexpr DWORD kChildWaitMs = 60000;

// A name no other test of any process uses at the same time.
std::string UniqueName(const std::string& tag) {
    static std::atomic<int> counter{0};
    return tag + "-" + std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(++counter);
}

void RemoveTree(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

}  // namespace

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
    if (!(out << bytes)) throw std::runtime_error("cannot write " + path);
}

void CreateFolders(const std::string& path) { std::filesystem::create_directories(path); }

void CopyFileTo(const std::string& from, const std::string& to) {
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

std::string FixturePath(const std::string& name) { return ExeFolder() + "\\fixtures\\" + name; }

// A folder that a crashed earlier run left under the same name goes first.
TempFolder::TempFolder(const std::string& tag) : path_("C:\\kitetest\\" + UniqueName(tag)) {
    RemoveTree(path_);
    CreateFolders(path_);
}

TempFolder::~TempFolder() { RemoveTree(path_); }

// Values of up to 64 KiB, which every value the tests read is.
std::string RegistryValueBytes(const std::string& key, const std::string& name, DWORD* type) {
    std::string data(1 << 16, '\0');
    DWORD bytes = static_cast<DWORD>(data.size());
    const bool found = ::RegGetValueA(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(),
                                      RRF_RT_ANY | RRF_NOEXPAND, type, &data[0], &bytes) == 0;
    return found ? data.substr(0, bytes) : std::string();
}

RegistryValue::RegistryValue(const std::string& key, const std::string& name)
    : key_(key), name_(name), saved_(RegistryValueBytes(key, name, &type_)) {
    existed_ = ::RegGetValueA(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), RRF_RT_ANY, nullptr,
                              nullptr, nullptr) == ERROR_SUCCESS;
}

RegistryValue::~RegistryValue() { existed_ ? Set(type_, saved_) : Delete(); }

void RegistryValue::Set(DWORD type, const std::string& bytes) {
    ::RegSetKeyValueA(HKEY_LOCAL_MACHINE, key_.c_str(), name_.c_str(), type, bytes.data(),
                      static_cast<DWORD>(bytes.size()));
}

void RegistryValue::SetString(const std::string& text) { Set(REG_SZ, text + '\0'); }

void RegistryValue::SetDword(DWORD value) {
    Set(REG_DWORD, std::string(reinterpret_cast<const char*>(&value), sizeof value));
}

void RegistryValue::Delete() {
    ::RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, key_.c_str(), name_.c_str());
}

// The key is the test's own: what a killed run left in it goes first.
RegistryKey::RegistryKey(const std::string& key) : key_(key) {
    ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, key_.c_str());
    ::RegSetKeyValueA(HKEY_LOCAL_MACHINE, key_.c_str(), nullptr, REG_SZ, "", 1);
}

// Given a subkey's name, RegDeleteTree deletes the key itself as well.
RegistryKey::~RegistryKey() { ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, key_.c_str()); }

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

std::vector<Lines> LinesOfScope(const std::string& maskedLog, const std::string& scope) {
    static const std::string entering = "<stamp> : Entering ", exiting = "<stamp> : Exiting ";
    std::vector<Lines> calls;
    std::vector<std::size_t> open;  // per open scope, its call's index, or npos for other scopes
    std::istringstream log(maskedLog);
    for (std::string line; std::getline(log, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.rfind(entering, 0) == 0) {
            const bool ours = line.substr(entering.size()) == scope;
            if (ours) calls.emplace_back();
            open.push_back(ours ? calls.size() - 1 : std::string::npos);
        } else if (line.rfind(exiting, 0) == 0) {
            if (!open.empty()) open.pop_back();
        } else if (!open.empty() && open.back() != std::string::npos) {
            calls[open.back()].push_back(line);
        }
    }
    return calls;
}

KiteDll::KiteDll() : module_(::LoadLibraryA((ExeFolder() + "\\KITEUpdate.dll").c_str())) {
    if (module_ == nullptr) throw std::runtime_error("cannot load KITEUpdate.dll");
}

KiteDll::~KiteDll() { ::FreeLibrary(module_); }

std::string Quote(const std::string& text) { return "\"" + text + "\""; }

// Over thousands of starts a Wine server now and then refuses one: the new process dies in its
// own start-up, before any of its code runs. The programs started here are test hosts and
// fixtures, not the subject, so a refused start is tried again.
static PROCESS_INFORMATION Start(const std::string& commandLine, HANDLE output) {
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = output != nullptr ? STARTF_USESTDHANDLES : 0;
    startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = startup.hStdError = output;
    PROCESS_INFORMATION process = {};
    std::string line = commandLine;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (::CreateProcessA(nullptr, &line[0], nullptr, nullptr, output != nullptr, 0, nullptr,
                             nullptr, &startup, &process)) {
            ::CloseHandle(process.hThread);
            return process;
        }
        ::Sleep(200);
    }
    throw std::runtime_error("cannot start " + commandLine);
}

HANDLE StartProcess(const std::string& commandLine) { return Start(commandLine, nullptr).hProcess; }

// The output goes to a file, not a pipe: a process that the child starts can inherit the handle
// and outlive it (Wine starts its desktop process on a program's first COM apartment).
ProcessResult RunProcess(const std::string& commandLine) {
    CreateFolders("C:\\kitetest");
    const std::string path = "C:\\kitetest\\" + UniqueName("output") + ".txt";
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    HANDLE output = ::CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  &inherit, CREATE_ALWAYS, 0, nullptr);
    const PROCESS_INFORMATION process = Start(commandLine, output);
    ::CloseHandle(output);
    ::WaitForSingleObject(process.hProcess, INFINITE);
    ProcessResult result = {0, ReadFileBytes(path)};
    ::GetExitCodeProcess(process.hProcess, &result.exitCode);
    ::CloseHandle(process.hProcess);
    ::DeleteFileA(path.c_str());
    return result;
}

HeldProgram::HeldProgram()
    : name_(UniqueName("kitechild")),
      alive_(::CreateMutexA(nullptr, FALSE, (name_ + ".alive").c_str())),
      ready_(::CreateEventA(nullptr, TRUE, FALSE, (name_ + ".ready").c_str())),
      stop_(::CreateEventA(nullptr, TRUE, FALSE, (name_ + ".stop").c_str())) {}

HeldProgram::~HeldProgram() {
    Stop();
    for (HANDLE handle : {alive_, ready_, stop_}) ::CloseHandle(handle);
}

std::string HeldProgram::ProgramPath() { return ExeFolder() + "\\kitechild.exe"; }

void HeldProgram::Start(const std::string& exePath, const std::string& file) {
    process_ =
        StartProcess(Quote(exePath) + " " + Arguments() + (file.empty() ? "" : " " + Quote(file)));
    WaitUntilRunning();
}

void HeldProgram::StartChild(const std::string& arguments) {
    process_ = StartProcess(Quote(ProgramPath()) + " " + arguments + " " + Arguments());
    WaitUntilRunning();
}

void HeldProgram::WaitUntilRunning() {
    // A program that ends instead of holding (not kitechild, for instance) fails at once.
    HANDLE waits[] = {ready_, process_};
    if (::WaitForMultipleObjects(process_ != nullptr ? 2 : 1, waits, FALSE, kChildWaitMs) !=
        WAIT_OBJECT_0) {
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
    if (process_ == nullptr) return;
    if (::WaitForSingleObject(process_, kChildWaitMs) != WAIT_OBJECT_0) {
        ::TerminateProcess(process_, 1);
    }
    ::CloseHandle(process_);
    process_ = nullptr;
}

}  // namespace kitetest
