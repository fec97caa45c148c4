// The tests' child program. "hold <name> [file]" owns the mutex "<name>.alive" (and the file,
// unshared, as a running program does); "lock <log> <name>" owns the log's line-lock byte; both
// set "<name>.ready" and run until "<name>.stop", two minutes at most. "stress <ini> <level> <n>"
// asks IsKITEApplicable n times on each of two threads.
#include "KITEUpdate.h"

#include <windows.h>

#include <cstdlib>
#include <string>
#include <thread>

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
    if (role == "lock" && argc == 4) {
        HANDLE log = ::CreateFileA(argv[2], GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        OVERLAPPED byte = {0, 0, {{0xFFFFFFFEUL, 0x7FFFFFFFUL}}, nullptr};
        if (!::LockFileEx(log, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &byte)) return 2;
        return readyUntilStopped(argv[3]);
    }
    if (role == "stress" && argc == 5) {
        // The application's folder comes first in the search: the DLL beside this program.
        HMODULE dll = ::LoadLibraryA("KITEUpdate.dll");
        const auto applicable = reinterpret_cast<IsKITEApplicableFn>(reinterpret_cast<void*>(
            dll != nullptr ? ::GetProcAddress(dll, "IsKITEApplicable") : nullptr));
        if (applicable == nullptr) return 3;
        const auto ask = [&] {
            for (int n = std::atoi(argv[4]); n > 0; --n) applicable(std::atoi(argv[3]), argv[2]);
        };
        std::thread other(ask);
        ask();
        other.join();
        return 0;
    }
    return 2;
}
