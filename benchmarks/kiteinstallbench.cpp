// kiteinstallbench: what an installation through KITEUpdate.dll costs next to copying the same
// bytes by hand and next to Windows Installer, in the Wine prefix that benchmarks/install.sh sets
// up.
//
//   kiteinstallbench prepare <root> <count> <sizes>   makes <root>\package (the new files) and
//                                                     <root>\product (the installed product)
//   kiteinstallbench run <root> <runs> [<msi>]        measures every method, prints one line each
//   kiteinstallbench memory <root>                    one installation; prints the host's memory
//   kiteinstallbench profile <root> <count>           what the steps of one traced file cost
//   kiteinstallbench calls <root>                     the file calls of one installation, timed
//   kiteinstallbench clean <root>                     deletes what prepare made
//
// <sizes> is "64k" (every file 64 KiB), "8m" (every file 8 MiB) or "mixed" (4 KiB doubling up
// to 8 MiB, then again). With KITE_BENCH_DIGESTS=1, prepare also writes each source's SHA-256
// (<root>\digests.txt) and run measures, next to every installation, one whose commands carry
// them.
// run also measures the undo of a whole installation: the same package installed through the
// static library in this process, with the write of its commit mark failing, after every file was
// placed and made durable; "undo-all" is the time from that failure to InstallKite's return,
// "install-undone" the whole call.
// The product folder holds tww.exe at release 27.0.4008 (backups on) and one file of the same
// name and size for each package file, so that every file of the package replaces one.
#include "KITEUpdate.h"
#include "Signing.h"
#include "common/Platform.h"
#include "common/Sha256.h"
#include "installer/JournalFile.h"
#include "installer/KiteInstaller.h"
#include "installer/Signature.h"
#include "log/CommonFilesDataPath.h"
#include "log/ScopeLog.h"

#include <windows.h>
#include <objbase.h>
#include <psapi.h>
#include <shlobj.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace {

using InstallKiteFunction = HRESULT (*)(const char*);

double Seconds() {
    LARGE_INTEGER now, frequency;
    ::QueryPerformanceCounter(&now);
    ::QueryPerformanceFrequency(&frequency);
    return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// User and kernel time of this process so far, in seconds.
void ProcessTimes(double& user, double& kernel) {
    FILETIME created, ended, kernelTime, userTime;
    ::GetProcessTimes(::GetCurrentProcess(), &created, &ended, &kernelTime, &userTime);
    const auto seconds = [](const FILETIME& time) {
        return static_cast<double>((static_cast<unsigned long long>(time.dwHighDateTime) << 32) |
                                   time.dwLowDateTime) /
               1e7;
    };
    user = seconds(userTime);
    kernel = seconds(kernelTime);
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "kiteinstallbench: %s (error %lu)\n", what.c_str(), ::GetLastError());
    std::exit(1);
}

std::string ModuleFolder() {
    char path[MAX_PATH] = {};
    ::GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string folder = path;
    return folder.substr(0, folder.rfind('\\'));
}

std::string FileName(int index) {
    char name[32];
    std::snprintf(name, sizeof name, "k%04d.dll", index);
    return name;
}

// The package's description, kept next to it by prepare.
struct Package {
    std::string root;
    int count = 0;
    std::vector<unsigned long> sizes;
    std::vector<std::string> digests;  // of the sources, when prepare was asked for them

    std::string PackagePath(int i) const { return root + "\\package\\" + FileName(i); }
    std::string ProductPath(int i) const { return root + "\\product\\" + FileName(i); }
    unsigned long long Bytes() const {
        unsigned long long total = 0;
        for (unsigned long size : sizes) total += size;
        return total;
    }
};

Package LoadPackage(const std::string& root) {
    Package package;
    package.root = root;
    std::ifstream list(root + "\\sizes.txt");
    unsigned long size = 0;
    while (list >> size) package.sizes.push_back(size);
    package.count = static_cast<int>(package.sizes.size());
    if (package.count == 0) Fail("no package under " + root + "; run prepare first");
    std::ifstream digests(root + "\\digests.txt");
    for (std::string digest; digests >> digest;) package.digests.push_back(digest);
    return package;
}

// Bytes that do not compress, as real program files hardly do: a cabinet of constant bytes would
// make the MSI's work nearly nothing.
void WriteFile(const std::string& path, unsigned long size, char seed) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file) Fail("cannot write " + path);
    unsigned long long state = 0x9E3779B97F4A7C15ULL ^ static_cast<unsigned char>(seed);
    std::string block(64 * 1024, '\0');
    for (unsigned long left = size; left > 0;) {
        for (std::size_t i = 0; i < block.size(); i += 8) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            std::memcpy(&block[i], &state, 8);
        }
        const unsigned long piece = std::min<unsigned long>(left, block.size());
        file.write(block.data(), piece);
        left -= piece;
    }
}

void RemoveTree(const std::string& folder) {
    WIN32_FIND_DATAA found;
    HANDLE search = ::FindFirstFileA((folder + "\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::string name = found.cFileName;
            if (name == "." || name == "..") continue;
            const std::string path = folder + "\\" + name;
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                RemoveTree(path);
            } else {
                ::SetFileAttributesA(path.c_str(), FILE_ATTRIBUTE_NORMAL);
                ::DeleteFileA(path.c_str());
            }
        } while (::FindNextFileA(search, &found));
        ::FindClose(search);
    }
    ::RemoveDirectoryA(folder.c_str());
}

// A source's digest as the installation computes it, read through a handle of its own.
std::string SourceDigest(const std::string& path) {
    const kite::UniqueHandle file(::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ,
                                                nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN,
                                                nullptr));
    const std::string digest = file ? kite::Sha256OfFile(file.get()) : std::string();
    if (digest.empty()) Fail("cannot hash " + path);
    return digest;
}

bool DigestsAsked() {
    const char* asked = std::getenv("KITE_BENCH_DIGESTS");
    return asked != nullptr && std::string(asked) == "1";
}

int Prepare(const std::string& root, int count, const std::string& sizes) {
    RemoveTree(root);
    ::SHCreateDirectoryExA(nullptr, root.c_str(), nullptr);
    ::CreateDirectoryA((root + "\\package").c_str(), nullptr);
    ::CreateDirectoryA((root + "\\product").c_str(), nullptr);
    const std::string program = ModuleFolder() + "\\fixtures\\tw27-program-4008.exe";
    if (!::CopyFileA(program.c_str(), (root + "\\product\\tww.exe").c_str(), FALSE)) {
        Fail("cannot copy " + program);
    }
    std::ofstream list(root + "\\sizes.txt");
    for (int i = 0; i < count; ++i) {
        const unsigned long size = sizes == "mixed" ? 4096UL << (i % 12)
                                   : sizes == "8m"  ? 8UL << 20
                                                    : 64UL << 10;
        list << size << "\n";
        WriteFile(root + "\\package\\" + FileName(i), size, 'n');
        WriteFile(root + "\\product\\" + FileName(i), size, 'o');
    }
    if (DigestsAsked()) {
        std::ofstream digests(root + "\\digests.txt");
        for (int i = 0; i < count; ++i) {
            digests << SourceDigest(root + "\\package\\" + FileName(i)) << "\n";
        }
    }
    return 0;
}

std::string Manifest(const Package& package, bool digests = false) {
    std::ostringstream xml;
    xml << "<commands><appdir>" << package.root << "\\product</appdir>";
    for (int i = 0; i < package.count; ++i) {
        xml << "<command><src>" << package.PackagePath(i) << "</src><dst>" << package.ProductPath(i)
            << "</dst><register>0</register>";
        if (digests) xml << "<sha256>" << package.digests[i] << "</sha256>";
        xml << "</command>";
    }
    xml << "</commands>";
    return xml.str();
}

std::string LogPath() {
    char workArea[kite::kWorkAreaBytes] = {};
    const char* folder = kite::GetCommonFilesDataPath(workArea);
    if (folder == nullptr) Fail("CommonFilesDataPath is not set");
    return std::string(folder) + "\\twupdate\\log\\CRITICALFIXES.LOG";
}

// The log's entering lines between two sizes of it: the traced scopes of what ran in between.
int ScopesSince(const std::string& log, std::streamoff from) {
    std::ifstream file(log, std::ios::binary);
    file.seekg(from);
    std::string line;
    int scopes = 0;
    while (std::getline(file, line)) scopes += line.find(" : Entering ") != std::string::npos;
    return scopes;
}

std::streamoff LogSize(const std::string& log) {
    std::ifstream file(log, std::ios::binary | std::ios::ate);
    return file ? static_cast<std::streamoff>(file.tellg()) : 0;
}

InstallKiteFunction LoadInstallKite() {
    const std::string dll = ModuleFolder() + "\\KITEUpdate.dll";
    HMODULE module = ::LoadLibraryA(dll.c_str());  // kept loaded until the process ends
    if (module == nullptr) Fail("cannot load " + dll);
    auto function = reinterpret_cast<InstallKiteFunction>(
        reinterpret_cast<void*>(::GetProcAddress(module, "InstallKite")));
    if (function == nullptr) Fail("no InstallKite in " + dll);
    return function;
}

// Runs a Windows program to its end; its exit code, or -1 when it could not be started.
long ProgramExitCode(const std::string& commandLine) {
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    std::vector<char> line(commandLine.begin(), commandLine.end());
    line.push_back('\0');
    if (!::CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                          nullptr, &startup, &process)) {
        return -1;
    }
    const kite::UniqueHandle thread(process.hThread);
    const kite::UniqueHandle child(process.hProcess);
    ::WaitForSingleObject(child.get(), INFINITE);
    DWORD code = 1;
    ::GetExitCodeProcess(child.get(), &code);
    return static_cast<long>(code);
}

bool RunProgram(const std::string& commandLine) { return ProgramExitCode(commandLine) == 0; }

// The copy step reports one event naming every replaced file, and an event body above 1700 bytes
// ends the process (a fatal parameter error, never a cut message). Beyond about 130 replaced
// files of this bench's names the host therefore ends right after the copies, before the commit
// or the undo; such an installation runs in a child process of its own, and what it left (the
// old files under GUID names) is removed afterwards.
bool HostEnds(int count) {
    const std::size_t fixedBytes = 300;  // event head, token, identifier, system, product facts
    const std::size_t message = std::strlen("KITE: CKiteInstaller::CopyFiles copied these files") +
                                count * (1 + FileName(0).size()) + 8;
    return fixedBytes + message >= 1700;
}

void RemoveAsideFiles(const std::string& root) {
    WIN32_FIND_DATAA found;
    const std::string folder = root + "\\product";
    HANDLE search = ::FindFirstFileA((folder + "\\{*}").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return;
    do {
        ::DeleteFileA((folder + "\\" + found.cFileName).c_str());
    } while (::FindNextFileA(search, &found));
    ::FindClose(search);
}

// One installation in a child process: its time, and its exit code in code.
double TimeChildInstall(const std::string& root, const char* mode, long& code) {
    const std::string line =
        "\"" + ModuleFolder() + "\\kiteinstallbench.exe\" install-once " + root + " " + mode;
    const double start = Seconds();
    code = ProgramExitCode(line);
    const double elapsed = Seconds() - start;
    RemoveAsideFiles(root);
    return elapsed;
}

// The commit mark ("C" and a line end, the journal's only write of two bytes) fails, once every
// file of the installation is placed and durable, so that each change is undone; when it failed
// is kept. The static library's platform table is this process's own (the DLL has its own).
decltype(&::WriteFile) realWriteFile = nullptr;
double commitMarkFailedAt = 0;

BOOL WINAPI FailCommitMark(HANDLE file, LPCVOID data, DWORD bytes, LPDWORD written,
                           LPOVERLAPPED overlapped) {
    if (bytes == 2 && std::memcmp(data, "C\n", 2) == 0) {
        commitMarkFailedAt = Seconds();
        ::SetLastError(ERROR_DISK_FULL);
        return FALSE;
    }
    return realWriteFile(file, data, bytes, written, overlapped);
}

struct Measured {
    std::string name;
    std::vector<double> seconds;
    int scopes = 0;
    long exitCode = 0;  // of the child process that ran it, when the host ends
};

// The baselines: what the same replacement of files costs without the library.
void CopyLoop(const Package& package) {
    for (int i = 0; i < package.count; ++i) {
        if (!::CopyFileA(package.PackagePath(i).c_str(), package.ProductPath(i).c_str(), FALSE)) {
            Fail("CopyFileA " + package.ProductPath(i));
        }
    }
}

void RenameAsideLoop(const Package& package, int round) {
    for (int i = 0; i < package.count; ++i) {
        const std::string dst = package.ProductPath(i);
        char aside[64];
        std::snprintf(aside, sizeof aside, "\\aside-%d-%d", round, i);
        const std::string asidePath = package.root + "\\product" + aside;
        if (!::MoveFileA(dst.c_str(), asidePath.c_str())) Fail("MoveFileA " + dst);
        if (!::CopyFileA(package.PackagePath(i).c_str(), dst.c_str(), FALSE)) {
            Fail("CopyFileA " + dst);
        }
        if (!::DeleteFileA(asidePath.c_str())) Fail("DeleteFileA " + asidePath);
    }
}

// The Windows Installer peer: a first installation of the MSI into a product folder whose files
// all differ in size from the package's, so that every one of them is replaced. Wine keeps no
// INSTALLDIR for a later repair, hence a fresh installation each time, removed afterwards.
void ResetForMsi(const Package& package, const std::string& msi) {
    RunProgram("msiexec /x \"" + msi + "\" /qn");
    for (int i = 0; i < package.count; ++i) {
        WriteFile(package.ProductPath(i), package.sizes[i] + 1, 'o');
    }
}

double TimeMsi(const Package& package, const std::string& msi) {
    const double start = Seconds();
    const bool ok =
        RunProgram("msiexec /i \"" + msi + "\" /qn INSTALLDIR=\"" + package.root + "\\product\"");
    const double elapsed = Seconds() - start;
    if (!ok) Fail("msiexec /i " + msi);
    // Every file must now carry the package's content.
    for (int i = 0; i < package.count; ++i) {
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!::GetFileAttributesExA(package.ProductPath(i).c_str(), GetFileExInfoStandard, &data) ||
            data.nFileSizeLow != package.sizes[i]) {
            Fail("msiexec did not replace " + package.ProductPath(i));
        }
    }
    return elapsed;
}

void PrintLine(const Package& package, const Measured& measured) {
    std::printf("%s files=%d bytes=%llu median=%.6f scopes=%d exit=%lx runs=",
                measured.name.c_str(), package.count, package.Bytes(), Median(measured.seconds),
                measured.scopes, static_cast<unsigned long>(measured.exitCode));
    for (std::size_t i = 0; i < measured.seconds.size(); ++i) {
        std::printf("%s%.4f", i ? "," : "", measured.seconds[i]);
    }
    std::printf("\n");
    std::fflush(stdout);
}

int Run(const std::string& root, int runs, const std::string& msi) {
    const Package package = LoadPackage(root);
    const InstallKiteFunction installKite = LoadInstallKite();
    const std::string manifest = Manifest(package);
    const std::string log = LogPath();

    // The first installation also makes the backup copies (kept for good afterwards) and loads
    // the telemetry configuration; it is reported on its own.
    const bool ends = HostEnds(package.count);
    Measured first{"install-first", {}, 0};
    if (ends) {
        const std::streamoff before = LogSize(log);
        first.seconds.push_back(TimeChildInstall(root, "ok", first.exitCode));
        first.scopes = ScopesSince(log, before);
        CopyLoop(package);
    } else {
        const std::streamoff before = LogSize(log);
        const double start = Seconds();
        if (installKite(manifest.c_str()) != S_OK) Fail("the first installation failed");
        first.seconds.push_back(Seconds() - start);
        first.scopes = ScopesSince(log, before);
    }

    Measured copy{"copy-loop", {}, 0}, rename{"rename-loop", {}, 0}, xcopy{"xcopy", {}, 0},
        install{"install", {}, 0}, undo{"undo", {}, 0}, peer{"msi", {}, 0},
        installDigests{"install-digests", {}, 0}, undoAll{"undo-all", {}, 0},
        installUndone{"install-undone", {}, 0};
    const bool digests = !package.digests.empty();
    const std::string manifestDigests = digests ? Manifest(package, true) : std::string();
    const std::string xcopyLine =
        "xcopy /y /q \"" + root + "\\package\\*\" \"" + root + "\\product\\\"";
    // Where an installation's time goes: the library's own code (user time of this process), its
    // system calls (kernel time), the rest waiting for Wine's server and the disk.
    double installUser = 0, installKernel = 0, digestsUser = 0, digestsKernel = 0;
    // One installation in this process, timed, with the processor time it took.
    const auto installInProcess = [&](const std::string& text, Measured& measured, double& user,
                                      double& kernel) {
        double userBefore = 0, kernelBefore = 0, userAfter = 0, kernelAfter = 0;
        ProcessTimes(userBefore, kernelBefore);
        const double start = Seconds();
        if (installKite(text.c_str()) != S_OK) Fail("an installation failed");
        measured.seconds.push_back(Seconds() - start);
        ProcessTimes(userAfter, kernelAfter);
        user += userAfter - userBefore;
        kernel += kernelAfter - kernelBefore;
    };
    // The whole installation undone, through the static library: it failed at its commit mark,
    // its undo is timed from there. The library's first call in this process (its telemetry
    // configuration, the system DLLs of its platform table) is made before, untimed.
    if (::InstallKite(manifest.c_str()) != S_OK) Fail("an installation failed");
    const auto undoWhole = [&] {
        kite::PlatformCalls& platform = kite::Platform();
        realWriteFile = platform.WriteFile;
        platform.WriteFile = FailCommitMark;
        commitMarkFailedAt = 0;
        const std::streamoff before = LogSize(log);
        const double start = Seconds();
        const long result = ::InstallKite(manifest.c_str());
        const double end = Seconds();
        platform.WriteFile = realWriteFile;
        if (result != E_FAIL || commitMarkFailedAt == 0) {
            Fail("the installation did not fail at its commit mark");
        }
        installUndone.seconds.push_back(end - start);
        undoAll.seconds.push_back(end - commitMarkFailedAt);
        installUndone.scopes = ScopesSince(log, before);
    };
    for (int round = 0; round < runs; ++round) {
        double start = Seconds();
        CopyLoop(package);
        copy.seconds.push_back(Seconds() - start);

        start = Seconds();
        RenameAsideLoop(package, round);
        rename.seconds.push_back(Seconds() - start);

        start = Seconds();
        if (!RunProgram(xcopyLine)) Fail(xcopyLine);
        xcopy.seconds.push_back(Seconds() - start);

        std::streamoff before = LogSize(log);
        if (ends) {
            install.seconds.push_back(TimeChildInstall(root, "ok", install.exitCode));
        } else {
            installInProcess(manifest, install, installUser, installKernel);
        }
        install.scopes = ScopesSince(log, before);

        // The same installation with every source verified against its digest: right after the
        // plain one, from the same product and with the sources as warm in the cache.
        before = LogSize(log);
        if (digests && ends) {
            installDigests.seconds.push_back(
                TimeChildInstall(root, "digests", installDigests.exitCode));
        } else if (digests) {
            installInProcess(manifestDigests, installDigests, digestsUser, digestsKernel);
        }
        installDigests.scopes = ScopesSince(log, before);

        // The undo: the last destination is held open without sharing, so that it cannot be
        // renamed aside; every file before it was replaced and is put back.
        {
            const std::string last = package.ProductPath(package.count - 1);
            const kite::UniqueHandle held(::CreateFileA(last.c_str(), GENERIC_READ, 0, nullptr,
                                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                                                        nullptr));
            if (!held) Fail("cannot hold " + last);
            before = LogSize(log);
            if (ends) {
                undo.seconds.push_back(TimeChildInstall(root, "fail", undo.exitCode));
            } else {
                start = Seconds();
                if (installKite(manifest.c_str()) != E_FAIL) {
                    Fail("the failing installation did not fail");
                }
                undo.seconds.push_back(Seconds() - start);
            }
            undo.scopes = ScopesSince(log, before);
        }
        // A host that ended left the new files in place and the old ones under GUID names; the
        // next round starts from the same product again.
        if (ends) CopyLoop(package);
        undoWhole();

        if (!msi.empty()) {
            ResetForMsi(package, msi);
            peer.seconds.push_back(TimeMsi(package, msi));
            RunProgram("msiexec /x \"" + msi + "\" /qn");
            CopyLoop(package);
        }
    }
    PrintLine(package, first);
    for (const Measured* measured :
         {&copy, &rename, &xcopy, &install, &undo, &undoAll, &installUndone}) {
        PrintLine(package, *measured);
    }
    if (!msi.empty()) PrintLine(package, peer);
    if (digests) PrintLine(package, installDigests);
    if (!ends) {
        std::printf("cpu files=%d bytes=%llu install-user=%.6f install-kernel=%.6f", package.count,
                    package.Bytes(), installUser / runs, installKernel / runs);
        if (digests) {
            std::printf(" digests-user=%.6f digests-kernel=%.6f", digestsUser / runs,
                        digestsKernel / runs);
        }
        std::printf("\n");
    }
    return 0;
}

// One installation as a host makes it; "fail" holds the last destination open so that it fails,
// "digests" names each source's digest.
int InstallOnce(const std::string& root, const std::string& mode) {
    const Package package = LoadPackage(root);
    const InstallKiteFunction installKite = LoadInstallKite();
    const std::string manifest = Manifest(package, mode == "digests");
    kite::UniqueHandle held;
    if (mode == "fail") {
        held.reset(::CreateFileA(package.ProductPath(package.count - 1).c_str(), GENERIC_READ, 0,
                                 nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    }
    const HRESULT result = installKite(manifest.c_str());
    return result == (mode == "fail" ? E_FAIL : S_OK) ? 0 : 3;
}

// The host's memory during one installation: the peak of its private bytes and working set,
// and what they were before.
int Memory(const std::string& root) {
    const Package package = LoadPackage(root);
    const InstallKiteFunction installKite = LoadInstallKite();
    const std::string manifest = Manifest(package);
    PROCESS_MEMORY_COUNTERS before = {};
    before.cb = sizeof before;
    ::GetProcessMemoryInfo(::GetCurrentProcess(), &before, sizeof before);
    if (installKite(manifest.c_str()) != S_OK) Fail("the installation failed");
    PROCESS_MEMORY_COUNTERS after = {};
    after.cb = sizeof after;
    ::GetProcessMemoryInfo(::GetCurrentProcess(), &after, sizeof after);
    std::printf(
        "memory files=%d bytes=%llu private-before=%llu private-peak=%llu "
        "working-set-before=%llu working-set-peak=%llu\n",
        package.count, package.Bytes(), static_cast<unsigned long long>(before.PagefileUsage),
        static_cast<unsigned long long>(after.PeakPagefileUsage),
        static_cast<unsigned long long>(before.WorkingSetSize),
        static_cast<unsigned long long>(after.PeakWorkingSetSize));
    return 0;
}

// What the pieces of one traced file cost, each repeated count times: the data-path lookup, an
// empty traced scope (lookup, open, entering and exiting lines), a message line, and the file
// calls of the copy step.
int Profile(const std::string& root, int count) {
    const Package package = LoadPackage(root);
    const auto time = [count](const char* what, const std::function<void(int)>& step) {
        const double start = Seconds();
        for (int i = 0; i < count; ++i) step(i);
        std::printf("profile %s us=%.1f\n", what, (Seconds() - start) / count * 1e6);
        std::fflush(stdout);
    };
    time("data-path-lookup", [](int) {
        char workArea[kite::kWorkAreaBytes] = {};
        kite::GetCommonFilesDataPath(workArea);
    });
    time("time-stamp", [](int) {
        const std::time_t now = std::time(nullptr);
        std::tm local = {};
        localtime_s(&local, &now);
        (void)kite::FormatTimeStamp(local);
    });
    // Alone, a scope opens and closes the log; inside an outer one (as every scope of an
    // installation is) it finds the file already open and only checks it.
    time("empty-scope", [](int) { kite::ScopeLog log("kiteinstallbench::Profile"); });
    {
        kite::ScopeLog log("kiteinstallbench::Profile");
        time("nested-empty-scope", [](int) { kite::ScopeLog inner("kiteinstallbench::Nested"); });
        time("message-line", [&log](int i) { log << "message " << i << std::endl; });
    }
    // The pieces of a traced scope besides the lookup: the size query and open of the log, and
    // one line appended at its end (the line lock is two interlocked instructions).
    const std::string log = LogPath();
    time("log-size-query", [&log](int) {
        WIN32_FILE_ATTRIBUTE_DATA data;
        ::GetFileAttributesExA(log.c_str(), GetFileExInfoStandard, &data);
    });
    const auto openLog = [&log] {
        return kite::UniqueHandle(::CreateFileA(log.c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                                FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                                OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    };
    time("log-open-close", [&openLog](int) { openLog(); });
    {
        const kite::UniqueHandle file = openLog();
        time("log-append", [&file](int) {
            DWORD written = 0;
            ::WriteFile(file.get(), "profile line\r\n", 14, &written, nullptr);
        });
    }
    // The journal file of an installation of one file: its plan written and flushed once, then
    // the file deleted, as a commit does.
    time("journal-plan", [&](int i) {
        kite::InstallPlan plan;
        plan.items.push_back(kite::WorkItem{kite::Change::Place,
                                            package.ProductPath(i % package.count), "", "", 0, ""});
        kite::JournalFile journal;
        journal.Begin(package.root + "\\product", plan);
        journal.Finish();
    });
    const int files = package.count;
    time("access",
         [&](int i) { (void)::GetFileAttributesA(package.ProductPath(i % files).c_str()); });
    // Under Wine a name that is not there is looked for through the whole folder, whatever its
    // case: every new name an installation makes (aside, temporary, the name it then takes)
    // costs that, against a folder that grows by the files set aside.
    const std::string missing = package.root + "\\product\\missing.dll";
    time("access-missing", [&](int) { (void)::GetFileAttributesA(missing.c_str()); });
    time("drive-type", [](int) { (void)::GetDriveTypeA("C:\\"); });
    // What verifying one source adds: its open denying writes and deletes (the hold is that
    // handle, kept open), and the open with the reading and hashing of its bytes.
    time("source-open-close", [&](int i) {
        const kite::UniqueHandle source(
            ::CreateFileA(package.PackagePath(i % files).c_str(), GENERIC_READ, FILE_SHARE_READ,
                          nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    });
    {
        const kite::UniqueHandle source(::CreateFileA(package.PackagePath(0).c_str(), GENERIC_READ,
                                                      FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                                                      nullptr));
        time("file-information", [&](int) {
            BY_HANDLE_FILE_INFORMATION info;
            (void)::GetFileInformationByHandle(source.get(), &info);
        });
    }
    time("source-open-sha256", [&](int i) { (void)SourceDigest(package.PackagePath(i % files)); });
    time("guid", [](int) {
        GUID guid;
        ::CoCreateGuid(&guid);
    });
    time("copy", [&](int i) {
        ::CopyFileA(package.PackagePath(i % files).c_str(), package.ProductPath(i % files).c_str(),
                    FALSE);
    });
    time("rename-aside-and-back", [&](int i) {
        const std::string dst = package.ProductPath(i % files);
        const std::string aside = package.root + "\\product\\aside-profile";
        ::MoveFileA(dst.c_str(), aside.c_str());
        ::MoveFileA(aside.c_str(), dst.c_str());
    });
    // The check of a signed manifest, once per installation: finding its element, SHA-256 of the
    // rest, the trusted key imported, the verification; for the whole package and for one file.
    kitehost::SigningKey key;
    if (!kitehost::GenerateSigningKey(key)) Fail("CNG cannot make a P-256 key");
    const std::vector<std::string> trusted = {kitehost::PublicKeyText(key)};
    const std::string whole =
        kitehost::SignManifestText(Manifest(package, !package.digests.empty()), key);
    time("signature-check", [&](int) { (void)kite::CheckSignature(whole, trusted, true); });
    Package one = package;
    one.count = 1;
    const std::string single = kitehost::SignManifestText(Manifest(one), key);
    time("signature-check-one-file",
         [&](int) { (void)kite::CheckSignature(single, trusted, true); });
    return 0;
}

// The file calls of one installation through the static library's platform table (this
// process's own): per entry, how often, the time spent in it (summed over the threads that flush)
// and when it was first and last called after the installation began, which shows its steps:
// the checks before the first GUID, the copies, the flushes, the commit's deletions.
struct CallStats {
    const char* name = nullptr;
    long count = 0;
    double seconds = 0, first = -1, last = 0;
};
CallStats callStats[8];
double callsStart = 0;
CRITICAL_SECTION callsLock;

template <int Id, typename R, typename... A>
struct Timed {
    static R (*real)(A...);
    static R WINAPI Call(A... args) {
        const double start = Seconds();
        const R result = real(args...);
        ::EnterCriticalSection(&callsLock);
        CallStats& stats = callStats[Id];
        stats.count++;
        stats.seconds += Seconds() - start;
        if (stats.first < 0) stats.first = start - callsStart;
        stats.last = std::max(stats.last, start - callsStart);
        ::LeaveCriticalSection(&callsLock);
        return result;
    }
};
template <int Id, typename R, typename... A>
R (*Timed<Id, R, A...>::real)
(A...) = nullptr;

template <int Id, typename R, typename... A>
void TimeEntry(R (*&entry)(A...), const char* name) {
    Timed<Id, R, A...>::real = entry;
    entry = &Timed<Id, R, A...>::Call;
    callStats[Id] = CallStats{name};
}

// An installation into a product whose backups exist (the first one, untimed, makes them).
int Calls(const std::string& root) {
    const Package package = LoadPackage(root);
    const std::string manifest = Manifest(package);
    ::InitializeCriticalSection(&callsLock);
    if (::InstallKite(manifest.c_str()) != S_OK) Fail("an installation failed");
    kite::PlatformCalls& platform = kite::Platform();
    const kite::PlatformCalls saved = platform;
    TimeEntry<0>(platform.CoCreateGuid, "CoCreateGuid");
    TimeEntry<1>(platform.CreateFileA, "CreateFileA");
    TimeEntry<2>(platform.WriteFile, "WriteFile");
    TimeEntry<3>(platform.FlushFileBuffers, "FlushFileBuffers");
    TimeEntry<4>(platform.MoveFileA, "MoveFileA");
    TimeEntry<5>(platform.MoveFileExA, "MoveFileExA");
    TimeEntry<6>(platform.DeleteFileA, "DeleteFileA");
    TimeEntry<7>(platform.SHCreateDirectory, "SHCreateDirectory");
    double userBefore = 0, kernelBefore = 0, userAfter = 0, kernelAfter = 0;
    ProcessTimes(userBefore, kernelBefore);
    callsStart = Seconds();
    const long result = ::InstallKite(manifest.c_str());
    const double total = Seconds() - callsStart;
    ProcessTimes(userAfter, kernelAfter);
    platform = saved;
    if (result != S_OK) Fail("an installation failed");
    std::printf("calls files=%d total=%.3f user=%.3f kernel=%.3f\n", package.count, total,
                userAfter - userBefore, kernelAfter - kernelBefore);
    for (const CallStats& stats : callStats) {
        std::printf("calls files=%d %s count=%ld seconds=%.3f first=%.3f last=%.3f\n",
                    package.count, stats.name, stats.count, stats.seconds, stats.first, stats.last);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "prepare" && argc == 5) return Prepare(argv[2], std::atoi(argv[3]), argv[4]);
    if (command == "run" && (argc == 4 || argc == 5)) {
        return Run(argv[2], std::atoi(argv[3]), argc == 5 ? argv[4] : "");
    }
    if (command == "memory" && argc == 3) return Memory(argv[2]);
    if (command == "calls" && argc == 3) return Calls(argv[2]);
    if (command == "install-once" && argc == 4) return InstallOnce(argv[2], argv[3]);
    if (command == "profile" && argc == 4) return Profile(argv[2], std::atoi(argv[3]));
    if (command == "clean" && argc == 3) {
        RemoveTree(argv[2]);
        return 0;
    }
    std::fprintf(stderr,
                 "usage: kiteinstallbench prepare <root> <count> 64k|8m|mixed\n"
                 "       kiteinstallbench run <root> <runs> [<msi>]\n"
                 "       kiteinstallbench memory <root>\n"
                 "       kiteinstallbench profile <root> <count>\n"
                 "       kiteinstallbench calls <root>\n"
                 "       kiteinstallbench clean <root>\n");
    return 2;
}
