// A child program for the tests, copied under the product's names or started by the library:
//   kitechild hold <name> [file]       runs until the event "<name>.stop" is set, holding the
//                                      file open without sharing, as a running program does
//   kitechild record <file> <code> ... writes its own command line to <file>, exits with <code>
//   kitechild lock <file> <name>       holds the update log's line-lock byte of <file>, sets
//                                      "<name>.ready", and lets go when "<name>.stop" is set
// While holding it owns the mutex "<name>.alive" and sets "<name>.ready" once it runs, so a test
// knows when it is up and, from the abandoned mutex, when it has gone. It never outlives a
// broken test by more than two minutes.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr DWORD kLongestHoldMs = 120000;

int Hold(const std::string& name, const char* file) {
    if (file != nullptr && ::CreateFileA(file, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0,
                                         nullptr) == INVALID_HANDLE_VALUE) {
        return 4;
    }
    HANDLE alive = ::OpenMutexA(SYNCHRONIZE, FALSE, (name + ".alive").c_str());
    HANDLE ready = ::OpenEventA(EVENT_MODIFY_STATE, FALSE, (name + ".ready").c_str());
    HANDLE stop = ::OpenEventA(SYNCHRONIZE, FALSE, (name + ".stop").c_str());
    if (alive == nullptr || ready == nullptr || stop == nullptr) return 2;
    if (::WaitForSingleObject(alive, kLongestHoldMs) != WAIT_OBJECT_0) return 3;
    ::SetEvent(ready);
    ::WaitForSingleObject(stop, kLongestHoldMs);
    // Ends without releasing "alive": its waiter sees the mutex abandoned once the process is gone.
    return 0;
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
    HANDLE ready = ::OpenEventA(EVENT_MODIFY_STATE, FALSE, (name + ".ready").c_str());
    HANDLE stop = ::OpenEventA(SYNCHRONIZE, FALSE, (name + ".stop").c_str());
    OVERLAPPED byte = {};
    byte.Offset = 0xFFFFFFFEUL;
    byte.OffsetHigh = 0x7FFFFFFFUL;
    if (log == INVALID_HANDLE_VALUE || ready == nullptr || stop == nullptr ||
        !::LockFileEx(log, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &byte)) {
        return 2;
    }
    ::SetEvent(ready);
    ::WaitForSingleObject(stop, kLongestHoldMs);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if ((argc == 3 || argc == 4) && std::strcmp(argv[1], "hold") == 0) {
        return Hold(argv[2], argc == 4 ? argv[3] : nullptr);
    }
    if (argc >= 4 && std::strcmp(argv[1], "record") == 0) return Record(argv[2], argv[3]);
    if (argc == 4 && std::strcmp(argv[1], "lock") == 0) return Lock(argv[2], argv[3]);
    std::fprintf(stderr,
                 "usage: kitechild hold <name> [file] | kitechild record <file> <code> ... | "
                 "kitechild lock <file> <name>\n");
    return 2;
}
