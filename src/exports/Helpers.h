// Process, privilege and path helpers that the installer and the component servers share.
#pragma once

#include <windows.h>

#include <string>

namespace kite {

// 1 when the process has administrative rights in effect, else 0.
int CheckIsUserAdmin();

// Runs "\"program\" arguments" and answers its exit code (259, still active, when *wait is 0),
// or the failure status of a start that failed (0x80070002 for a missing program).
int LaunchAndWait(const char* program, const char* arguments, const DWORD* wait);

// The text after the last backslash; the whole path when it has none.
std::string FileNameOfPath(const std::string& path);

// The platform's failure status of a system error code: (e & 0xFFFF) | 0x80070000 for codes
// above 0, anything else unchanged.
int StatusOfError(DWORD error);

}  // namespace kite
