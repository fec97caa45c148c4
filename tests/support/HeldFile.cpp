#include "support/HeldFile.h"

#include "support/KiteTest.h"

#include <stdexcept>

namespace kitetest {

HeldFile::HeldFile(const std::string& path) {
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    HANDLE childInput = nullptr;
    HANDLE output = nullptr;
    HANDLE childOutput = nullptr;
    if (!::CreatePipe(&childInput, &input_, &inherit, 0) ||
        !::CreatePipe(&output, &childOutput, &inherit, 0)) {
        throw std::runtime_error("pipe");
    }
    ::SetHandleInformation(input_, HANDLE_FLAG_INHERIT, 0);
    ::SetHandleInformation(output, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = childInput;
    startup.hStdOutput = childOutput;
    startup.hStdError = childOutput;
    PROCESS_INFORMATION process = {};
    std::string line = Quote(ExeFolder() + "\\fixtures\\kiteholder.exe") + " " + Quote(path);
    // Under a heavily loaded Wine server a process start can fail now and then; the holder is the
    // fixture, not the subject, so it is given a few tries.
    BOOL started = FALSE;
    for (int attempt = 0; attempt < 5 && !started; ++attempt) {
        if (attempt > 0) ::Sleep(200);
        started = ::CreateProcessA(nullptr, &line[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                   &startup, &process);
    }
    ::CloseHandle(childInput);
    ::CloseHandle(childOutput);
    if (!started) throw std::runtime_error("cannot start kiteholder");
    ::CloseHandle(process.hThread);
    process_ = process.hProcess;
    char said[16] = {};
    DWORD read = 0;
    const bool held = ::ReadFile(output, said, sizeof said - 1, &read, nullptr) && read >= 4 &&
                      std::string(said, 4) == "held";
    ::CloseHandle(output);
    if (!held) throw std::runtime_error("kiteholder could not open " + path);
}

HeldFile::~HeldFile() {
    ::CloseHandle(input_);
    ::WaitForSingleObject(process_, 60000);
    ::CloseHandle(process_);
}

}  // namespace kitetest
