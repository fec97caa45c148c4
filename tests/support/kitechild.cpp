// The tests' child program. "hold <name> [file]" owns the mutex "<name>.alive" (and the file,
// unshared, as a running program does); "lock <name>" owns the log's line lock; both
// set "<name>.ready" and run until "<name>.stop", two minutes at most. "stress <ini> <level> <n>"
// asks IsKITEApplicable n times on each of two threads. "crash <k> install|host <manifest>
// <product>" ends itself, as a power loss or a killed updater would, right after the k-th platform
// call by which the library changes the product folder or the registry (0: never), running
// InstallKite alone or the six exports in their documented order (kite.ini beside the manifest);
// it exits 99 when it ended there, else 0 when the installation (if any) succeeded, else 1.
#include "KITEUpdate.h"
#include "log/ScopeLog.h"
#include "support/PlatformOverride.h"

#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace {

long crashAt = 0;
long steps = 0;

void Step() {
    if (++steps == crashAt) ::TerminateProcess(::GetCurrentProcess(), 99);
}
#define KITE_STEP(entry) (KITE_INTERCEPT(entry)::Arm(), KITE_INTERCEPT(entry)::after = Step)

int Crash(long at, const std::string& mode, const std::string& manifest, const char* product) {
    crashAt = at;
    KITE_STEP(MoveFileA);
    KITE_STEP(CopyFileA);
    KITE_STEP(DeleteFileA);
    KITE_STEP(MoveFileExA);
    KITE_STEP(SHCreateDirectory);
    KITE_STEP(WriteFile);
    // A registration tool changes the registry while it runs: its step ends when it has ended.
    KITE_STEP(WaitForSingleObject);
    kite::Platform().Sleep = [](DWORD) {};
    std::ostringstream text;
    text << std::ifstream(manifest, std::ios::binary).rdbuf();
    const std::string settings = manifest.substr(0, manifest.rfind('\\')) + "\\kite.ini";
    if (mode == "install" || IsKITEApplicable(GetTwSlipstream2(product), settings) ||
        IsKITEToBeForceApplied(product)) {
        return InstallKite(text.str().c_str()) == 0 ? 0 : 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const DWORD longest = 120000;
    const auto readyUntilStopped = [&](const std::string& name) {
        HANDLE ready = ::OpenEventA(EVENT_MODIFY_STATE, FALSE, (name + ".ready").c_str());
        HANDLE stop = ::OpenEventA(SYNCHRONIZE, FALSE, (name + ".stop").c_str());
        if (ready == nullptr || stop == nullptr) return 2;
        ::SetEvent(ready);
        ::WaitForSingleObject(stop, longest);
        return 0;
    };
    const std::string role = argc > 2 ? argv[1] : "";
    if (role == "hold") {
        if (argc == 4 && ::CreateFileA(argv[3], GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0,
                                       nullptr) == INVALID_HANDLE_VALUE)
            return 4;
        HANDLE alive = ::OpenMutexA(SYNCHRONIZE, FALSE, (argv[2] + std::string(".alive")).c_str());
        // Ends without releasing "alive": its waiter sees it abandoned once the process is gone.
        if (alive == nullptr || ::WaitForSingleObject(alive, longest) != WAIT_OBJECT_0) return 3;
        return readyUntilStopped(argv[2]);
    }
    if (role == "lock") {
        HANDLE section = ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                              sizeof(LONG), kite::kLineLockName);
        auto* word = static_cast<volatile LONG*>(
            section != nullptr ? ::MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0) : nullptr);
        const LONG self = static_cast<LONG>(::GetCurrentProcessId());
        if (word == nullptr || ::InterlockedCompareExchange(word, self, 0) != 0) return 2;
        return readyUntilStopped(argv[2]);
    }
    if (role == "crash" && argc == 6) return Crash(std::atol(argv[2]), argv[3], argv[4], argv[5]);
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
