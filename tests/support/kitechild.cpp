// A child program for the tests, copied under the product's names or started by the library:
//   kitechild hold <name> [file]       runs until the event "<name>.stop" is set, holding the
//                                      file open without sharing, as a running program does
//   kitechild record <file> <code> ... writes its own command line to <file>, exits with <code>
//   kitechild lock <file> <name>       holds the update log's line-lock byte of <file> until
//                                      "<name>.stop" is set
//   kitechild stress <ini> <level> <n> a host calling IsKITEApplicable n times through the
//                                      KITEUpdate.dll beside it; exits 1 on any false answer
// Holding, it owns the mutex "<name>.alive" and sets "<name>.ready"; it never outlives a broken
// test by more than two minutes.
#include "KITEUpdate.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr DWORD kLongestHoldMs = 120000;

int ReadyUntilStopped(const std::string& name) {
    HANDLE ready = ::OpenEventA(EVENT_MODIFY_STATE, FALSE, (name + ".ready").c_str());
    HANDLE stop = ::OpenEventA(SYNCHRONIZE, FALSE, (name + ".stop").c_str());
    if (ready == nullptr || stop == nullptr) return 2;
    ::SetEvent(ready);
    ::WaitForSingleObject(stop, kLongestHoldMs);
    return 0;
}

int Hold(const std::string& name, const char* file) {
    if (file != nullptr && ::CreateFileA(file, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0,
                                         nullptr) == INVALID_HANDLE_VALUE) {
        return 4;
    }
    HANDLE alive = ::OpenMutexA(SYNCHRONIZE, FALSE, (name + ".alive").c_str());
    if (alive == nullptr || ::WaitForSingleObject(alive, kLongestHoldMs) != WAIT_OBJECT_0) return 3;
    // Ends without releasing "alive": its waiter sees the mutex abandoned once the process is gone.
    return ReadyUntilStopped(name);
}

int Record(const char* file, const char* code) {
    FILE* out = std::fopen(file, "wb");
    if (out == nullptr) return 2;
    std::fputs(::GetCommandLineA(), out);
    std::fclose(out);
    return static_cast<int>(std::strtoul(code, nullptr, 0));
}

int Lock(const char* file, const std::string& name) {
    HANDLE log = ::CreateFileA(file, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    OVERLAPPED byte = {};
    byte.Offset = 0xFFFFFFFEUL;
    byte.OffsetHigh = 0x7FFFFFFFUL;
    return ::LockFileEx(log, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &byte) ? ReadyUntilStopped(name) : 2;
}

int Stress(const char* settings, int level, int count) {
    char self[MAX_PATH] = {};
    const std::string exe(self, ::GetModuleFileNameA(nullptr, self, MAX_PATH));
    HMODULE dll = ::LoadLibraryA((exe.substr(0, exe.rfind('\\') + 1) + "KITEUpdate.dll").c_str());
    const auto applicable = reinterpret_cast<IsKITEApplicableFn>(reinterpret_cast<void*>(
        dll != nullptr ? ::GetProcAddress(dll, "IsKITEApplicable") : nullptr));
    if (applicable == nullptr) return 3;
    int wrong = 0;
    while (count-- > 0) wrong += applicable(level, settings) ? 0 : 1;
    return wrong == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 1 ? argv[1] : "";
    if ((argc == 3 || argc == 4) && role == "hold")
        return Hold(argv[2], argc == 4 ? argv[3] : nullptr);
    if (argc >= 4 && role == "record") return Record(argv[2], argv[3]);
    if (argc == 4 && role == "lock") return Lock(argv[2], argv[3]);
    if (argc == 5 && role == "stress")
        return Stress(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    std::fprintf(stderr, "usage: kitechild hold|record|lock|stress ...\n");
    return 2;
}
