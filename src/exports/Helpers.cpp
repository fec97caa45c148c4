#include "exports/Helpers.h"

#include "common/BoundedFormat.h"
#include "common/Handles.h"
#include "common/Platform.h"
#include "log/ScopeLog.h"

namespace kite {

namespace {

constexpr std::size_t kCommandLineChars = 4096;

// The shell says no: the token's elevation type tells a limited split token from a plain user.
int AdminByElevation(std::ostream& log) {
    UniqueHandle token;
    Platform().OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put());
    TOKEN_ELEVATION_TYPE type = static_cast<TOKEN_ELEVATION_TYPE>(0);
    DWORD bytes = 0;
    Platform().GetTokenInformation(token.get(), TokenElevationType, &type, sizeof type, &bytes);
    switch (type) {
        case TokenElevationTypeDefault:
            log << "User is not using a split token.";
            return 0;
        case TokenElevationTypeFull:
            log << "User has a split token, and the process is running elevated.";
            return 1;
        case TokenElevationTypeLimited:
            log << "User has a split token, but the process is not running elevated.";
            return 0;
        default:
            return 0;
    }
}

// Waits for a started program within the time limit; one that has not ended by then is ended, so
// that nothing it holds stays locked for the undo that follows its failure.
bool EndedInTime(HANDLE process, std::ostream& log) {
    if (Platform().WaitForSingleObject(process, kLongestProgramWaitMs) != WAIT_TIMEOUT) return true;
    ::TerminateProcess(process, WAIT_TIMEOUT);
    Platform().WaitForSingleObject(process, kLongestProgramWaitMs);
    log << "Program still running after " << kLongestProgramWaitMs / 1000 << " seconds: ended"
        << std::endl;
    return false;
}

}  // namespace

int CheckIsUserAdmin() {
    ScopeLog log("CheckIsUserAdmin");
    const int admin = Platform().IsUserAnAdmin() ? 1 : AdminByElevation(log);
    // The elevation message, when there is one, and the result share one line.
    log << " Return value: " << admin << std::endl;
    return admin;
}

int LaunchAndWait(const char* program, const char* arguments, const DWORD* wait) {
    return LaunchAndWaitAs(nullptr, program, arguments, wait);
}

int LaunchAndWaitAs(const char* application, const char* program, const char* arguments,
                    const DWORD* wait) {
    ScopeLog log("LaunchAndWait");
    if (program == nullptr || arguments == nullptr || wait == nullptr) {
        log << "Invalid argument: program, arguments or wait flag is null" << std::endl;
        return E_INVALIDARG;
    }
    // The program is quoted so that a path with blanks stays one; the arguments go as given.
    char commandLine[kCommandLineChars];
    FormatBounded(commandLine, "\"%s\" %s", program, arguments);
    log << commandLine << std::endl;
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started = {};
    const BOOL created = Platform().CreateProcessA(application, commandLine, nullptr, nullptr,
                                                   FALSE, 0, nullptr, nullptr, &startup, &started);
    const DWORD error = ::GetLastError();
    log << "Process creation: " << (created ? 1 : 0) << std::endl;
    if (!created) return StatusOfError(error);
    UniqueHandle process(started.hProcess);
    UniqueHandle thread(started.hThread);
    if (*wait != 0 && !EndedInTime(process.get(), log)) {
        return static_cast<int>(HRESULT_FROM_WIN32(WAIT_TIMEOUT));
    }
    DWORD exitCode = 0xFFFFFFFFUL;
    ::GetExitCodeProcess(process.get(), &exitCode);
    process.reset();
    thread.reset();
    log << "Exit code: " << exitCode << std::endl;
    return static_cast<int>(exitCode);
}

std::string FileNameOfPath(const std::string& path) {
    const std::string::size_type slash = path.rfind('\\');
    if (slash == std::string::npos) return path;
    return path.substr(slash + 1);
}

int StatusOfError(DWORD error) {
    if (static_cast<LONG>(error) > 0) return static_cast<int>((error & 0xFFFFUL) | 0x80070000UL);
    return static_cast<int>(error);
}

}  // namespace kite
