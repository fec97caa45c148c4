// The tests' child program. "hold <name> [file]" owns the mutex "<name>.alive" (and the file,
// unshared, as a running program does); "lock <name>" owns the log's line lock; both
// set "<name>.ready" and run until "<name>.stop", two minutes at most. "stress <ini> <level> <n>"
// asks IsKITEApplicable n times on each of two threads. "crash <k> install|host <manifest>
// <product> [hold <name>]" runs InstallKite alone or the six exports in their documented order
// (kite.ini beside the manifest) and prints InstallKite's answer. Right after the k-th platform
// call by which the library writes, flushes, renames, deletes or creates a file or folder, or a
// registration tool ends (0: never), it either holds there as "hold" does, or ends itself as a
// power cut would: it writes "<product>.lost" with every file written since its last flush and
// the size it had on disk then, for the test to cut it back, and exits 99. Otherwise it exits 0
// when the installation (if any) succeeded, else 1.
#include "KITEUpdate.h"
#include "log/ScopeLog.h"
#include "support/PlatformOverride.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

namespace {

long crashAt = 0;
long steps = 0;
const char* pauseName = nullptr;
std::string lostList;

// A power cut keeps what was flushed: for each file written since its last flush, the size it
// had on disk then. The parent cuts each such file back to it.
std::map<std::string, LONGLONG> durable;
std::map<HANDLE, std::string> written;
// The library flushes many files from several threads at once.
std::recursive_mutex books;
using Books = std::lock_guard<std::recursive_mutex>;

int ReadyUntilStopped(const std::string& name);

void Step() {
    if (++steps != crashAt) return;
    if (pauseName != nullptr) {
        ReadyUntilStopped(pauseName);
        return;
    }
    const Books lock(books);
    std::ofstream lost(lostList, std::ios::binary);
    for (const auto& [path, size] : durable) lost << path << '\t' << size << '\n';
    lost.close();
    ::TerminateProcess(::GetCurrentProcess(), 99);
}

void Renamed(const char* from, const char* to) {
    const Books lock(books);
    if (to == nullptr) return;
    const auto it = durable.find(from);
    if (it != durable.end()) durable[to] = it->second, durable.erase(from);
    for (auto& entry : written) {
        if (entry.second == from) entry.second = to;
    }
}

#define KITE_STEP(entry) (KITE_INTERCEPT(entry)::Arm(), KITE_INTERCEPT(entry)::after = Step)
#define KITE_REAL(entry) KITE_INTERCEPT(entry)::real

void PowerCutModel() {
    KITE_INTERCEPT(CreateFileA)::Arm();
    kite::Platform().CreateFileA = [](LPCSTR name, DWORD access, DWORD share,
                                      LPSECURITY_ATTRIBUTES security, DWORD disposition,
                                      DWORD flags, HANDLE from) {
        const HANDLE file = KITE_REAL(CreateFileA)(name, access, share, security, disposition,
                                                   flags, from);
        if (file != INVALID_HANDLE_VALUE && (access & GENERIC_WRITE)) {
            const Books lock(books);
            written[file] = name;
            if (disposition == CREATE_ALWAYS) durable[name] = 0;
        }
        Step();
        return file;
    };
    KITE_INTERCEPT(WriteFile)::Arm();
    kite::Platform().WriteFile = [](HANDLE file, LPCVOID data, DWORD size, LPDWORD done,
                                    LPOVERLAPPED overlapped) {
        LARGE_INTEGER before = {};
        const Books lock(books);
        const auto it = written.find(file);
        if (it != written.end() && !durable.count(it->second) &&
            ::GetFileSizeEx(file, &before)) {
            durable[it->second] = before.QuadPart;
        }
        const BOOL result = KITE_REAL(WriteFile)(file, data, size, done, overlapped);
        Step();
        return result;
    };
    KITE_INTERCEPT(FlushFileBuffers)::Arm();
    kite::Platform().FlushFileBuffers = [](HANDLE file) {
        const BOOL result = KITE_REAL(FlushFileBuffers)(file);
        const Books lock(books);
        if (result && written.count(file)) durable.erase(written[file]);
        Step();
        return result;
    };
    KITE_INTERCEPT(MoveFileA)::Arm();
    kite::Platform().MoveFileA = [](LPCSTR from, LPCSTR to) {
        const BOOL result = KITE_REAL(MoveFileA)(from, to);
        if (result) Renamed(from, to);
        Step();
        return result;
    };
    KITE_INTERCEPT(MoveFileExA)::Arm();
    kite::Platform().MoveFileExA = [](LPCSTR from, LPCSTR to, DWORD flags) {
        const BOOL result = KITE_REAL(MoveFileExA)(from, to, flags);
        if (result && !(flags & MOVEFILE_DELAY_UNTIL_REBOOT)) Renamed(from, to);
        Step();
        return result;
    };
    KITE_INTERCEPT(DeleteFileA)::Arm();
    kite::Platform().DeleteFileA = [](LPCSTR path) {
        const BOOL result = KITE_REAL(DeleteFileA)(path);
        const Books lock(books);
        if (result) durable.erase(path);
        Step();
        return result;
    };
    KITE_STEP(SHCreateDirectory);
    // A registration tool changes the registry while it runs: its step ends when it has ended.
    KITE_STEP(WaitForSingleObject);
}

// Runs InstallKite alone or the six exports in their documented order, cut off at step at.
int Crash(long at, const std::string& mode, const std::string& manifest, const char* product) {
    crashAt = at;
    lostList = std::string(product) + ".lost";
    PowerCutModel();
    kite::Platform().Sleep = [](DWORD) {};
    std::ostringstream text;
    text << std::ifstream(manifest, std::ios::binary).rdbuf();
    const std::string settings = manifest.substr(0, manifest.rfind('\\')) + "\\kite.ini";
    if (mode == "install" || IsKITEApplicable(GetTwSlipstream2(product), settings) ||
        IsKITEToBeForceApplied(product)) {
        const HRESULT result = InstallKite(text.str().c_str());
        std::printf("InstallKite %08lx\n", static_cast<unsigned long>(result));
        return result == 0 ? 0 : 1;
    }
    return 0;
}

int ReadyUntilStopped(const std::string& name) {
    const DWORD longest = 120000;
    HANDLE alive = ::OpenMutexA(SYNCHRONIZE, FALSE, (name + ".alive").c_str());
    // Ends without releasing "alive": its waiter sees it abandoned once the process is gone.
    if (alive == nullptr || ::WaitForSingleObject(alive, longest) != WAIT_OBJECT_0) return 3;
    HANDLE ready = ::OpenEventA(EVENT_MODIFY_STATE, FALSE, (name + ".ready").c_str());
    HANDLE stop = ::OpenEventA(SYNCHRONIZE, FALSE, (name + ".stop").c_str());
    if (ready == nullptr || stop == nullptr) return 2;
    ::SetEvent(ready);
    ::WaitForSingleObject(stop, longest);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 2 ? argv[1] : "";
    if (role == "hold") {
        if (argc == 4 && ::CreateFileA(argv[3], GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0,
                                       nullptr) == INVALID_HANDLE_VALUE)
            return 4;
        return ReadyUntilStopped(argv[2]);
    }
    if (role == "lock") {
        HANDLE section = ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                              sizeof(LONG), kite::kLineLockName);
        auto* word = static_cast<volatile LONG*>(
            section != nullptr ? ::MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0) : nullptr);
        const LONG self = static_cast<LONG>(::GetCurrentProcessId());
        if (word == nullptr || ::InterlockedCompareExchange(word, self, 0) != 0) return 2;
        return ReadyUntilStopped(argv[2]);
    }
    if (role == "crash" && (argc == 6 || (argc == 8 && std::string(argv[6]) == "hold"))) {
        if (argc == 8) pauseName = argv[7];
        return Crash(std::atol(argv[2]), argv[3], argv[4], argv[5]);
    }
    if (role == "stress" && argc == 5) {
        const auto ask = [&] {
            for (int n = std::atoi(argv[4]); n > 0; --n)
                IsKITEApplicable(std::atoi(argv[3]), argv[2]);
        };
        std::thread other(ask);
        ask();
        other.join();
        return 0;
    }
    return 2;
}
