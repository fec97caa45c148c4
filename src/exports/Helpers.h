// Process, privilege and path helpers that the installer and the component servers share.
#pragma once

#include <windows.h>

#include <string>

namespace kite {

// 1 when the process has administrative rights in effect, else 0.
int CheckIsUserAdmin();

// How long LaunchAndWait waits for a program before ending it. Registration tools and servers
// run as administrator in the middle of an installation; one that hangs (a dialog no one sees,
// a deadlock in a server's registration code) must not hold the installation, and with it the
// product, for ever. Five minutes is far beyond any real registration.
constexpr DWORD kLongestProgramWaitMs = 5 * 60 * 1000;

// Runs "\"program\" arguments" and answers its exit code (259, still active, when *wait is 0),
// or the failure status of a start that failed (0x80070002 for a missing program). A program
// still running after kLongestProgramWaitMs is ended and answers 0x80070102 (wait timed out).
int LaunchAndWait(const char* program, const char* arguments, const DWORD* wait);

// LaunchAndWait with the program started named apart: the command line, and its trace, keep the
// name the caller gives, while the program that runs is the one at application (a full path, or
// nullptr to search for program as LaunchAndWait does).
int LaunchAndWaitAs(const char* application, const char* program, const char* arguments,
                    const DWORD* wait);

// The text after the last backslash; the whole path when it has none.
std::string FileNameOfPath(const std::string& path);

// The platform's failure status of a system error code: (e & 0xFFFF) | 0x80070000 for codes
// above 0, anything else unchanged.
int StatusOfError(DWORD error);

}  // namespace kite
