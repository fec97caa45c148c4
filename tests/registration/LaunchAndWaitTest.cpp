#include "exports/Helpers.h"

#include "support/KiteTest.h"
#include "support/PlatformOverride.h"

namespace {

using kitetest::Quote;
using kitetest::Trail;

class LaunchAndWaitTest : public kitetest::LogTest {};

// kitechild records the command line it was given (blanks and quotes kept) and exits as asked.
TEST_F(LaunchAndWaitTest, QuotesTheProgramAndAnswersItsExitCodeOrStartFailure) {
    const std::string program = folder_ / "a b\\kite child.exe", record = folder_ / "line";
    const std::string arguments = "record " + record + " 0xE0000001  \"two words\" a\\\"b ";
    kitetest::CreateFolders(folder_ / "a b");
    kitetest::CopyFileTo(kitetest::HeldProgram::ProgramPath(), program);
    const DWORD wait = 1;
    EXPECT_EQ(kite::LaunchAndWait(program.c_str(), arguments.c_str(), &wait), int(0xE0000001));
    EXPECT_EQ(kitetest::ReadFileBytes(record), Quote(program) + " " + arguments);
    EXPECT_EQ(kite::LaunchAndWait("C:\\missing.exe", "x", &wait), int(0x80070002));
    EXPECT_EQ(ReadMaskedLog(), Trail("LaunchAndWait", Quote(program) + " " + arguments +
                                                          "\r\nProcess creation: 1\r\n"
                                                          "Exit code: 3758096385\r\n") +
                                   Trail("LaunchAndWait",
                                         "\"C:\\missing.exe\" x\r\n"
                                         "Process creation: 0\r\n"));
}

kitetest::HeldProgram* held;

// Without the wait flag a running program answers 259. With it, one that does not end within the
// time limit is ended and the call fails: the platform's wait stands in for the minutes, and
// fails outright when asked to wait longer than that.
TEST_F(LaunchAndWaitTest, ProgramThatDoesNotEndInTimeIsEnded) {
    const std::string exe = kitetest::HeldProgram::ProgramPath();
    const DWORD noWait = 0, wait = 1;
    kitetest::HeldProgram notWaitedFor, hanging;
    EXPECT_EQ(kite::LaunchAndWait(exe.c_str(), notWaitedFor.Arguments().c_str(), &noWait), 259);
    held = &hanging;
    kitetest::PlatformOverride platform;
    platform.calls().WaitForSingleObject = [](HANDLE process, DWORD ms) -> DWORD {
        if (ms > 10 * 60 * 1000) return WAIT_FAILED;
        held->WaitUntilRunning();
        return ::WaitForSingleObject(process, 100);
    };
    ClearLog();
    EXPECT_EQ(kite::LaunchAndWait(exe.c_str(), hanging.Arguments().c_str(), &wait), 0x80070102);
    EXPECT_EQ(ReadMaskedLog(), Trail("LaunchAndWait", Quote(exe) + " " + hanging.Arguments() +
                                                          "\r\nProcess creation: 1\r\nProgram still"
                                                          " running after 300 seconds: ended\r\n"));
    // The child owned this mutex while it ran: abandoned, it has gone.
    const std::string alive = hanging.Arguments().substr(5) + ".alive";
    const HANDLE mutex = ::OpenMutexA(SYNCHRONIZE, FALSE, alive.c_str());
    EXPECT_EQ(::WaitForSingleObject(mutex, 10000), DWORD(WAIT_ABANDONED));
    ::ReleaseMutex(mutex);
    ::CloseHandle(mutex);
}

}  // namespace
