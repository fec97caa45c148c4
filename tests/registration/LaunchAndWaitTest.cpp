#include "exports/Helpers.h"

#include "support/KiteTest.h"
#include "support/PlatformOverride.h"

namespace {

using kitetest::Quote;
using kitetest::Trail;

class LaunchAndWaitTest : public kitetest::LogTest {};

// kitechild records the command line it was given and exits with the code it was asked for.
TEST_F(LaunchAndWaitTest, QuotesTheProgramAndAnswersItsExitCodeOrStartFailure) {
    const std::string program = folder_ / "with blanks\\kite child.exe", record = folder_ / "line";
    kitetest::CreateFolders(folder_ / "with blanks");
    kitetest::CopyFileTo(kitetest::HeldProgram::ProgramPath(), program);
    struct Row {
        std::string program, arguments;
        int result;
        std::string logged;
    };
    const Row rows[] = {
        {folder_ / "with blanks\\missing.exe", "x", int(0x80070002), "Process creation: 0\r\n"},
        {program, "record " + record + " 0xE0000001  \"two words\" a\\\"b ", int(0xE0000001),
         "Process creation: 1\r\nExit code: 3758096385\r\n"},
    };
    const DWORD wait = 1;
    for (const Row& row : rows) {
        ClearLog();
        const std::string commandLine = Quote(row.program) + " " + row.arguments;
        EXPECT_EQ(kite::LaunchAndWait(row.program.c_str(), row.arguments.c_str(), &wait),
                  row.result);
        EXPECT_EQ(ReadMaskedLog(), Trail("LaunchAndWait", commandLine + "\r\n" + row.logged));
    }
    EXPECT_EQ(kitetest::ReadFileBytes(record), Quote(program) + " " + rows[1].arguments);
}

kitetest::HeldProgram* held;

// Without the wait flag a running program answers 259. With it, one that does not end within the
// time limit is ended and the call fails; the platform's wait stands in for the minutes, and
// fails outright when asked to wait without a limit.
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
    EXPECT_EQ(kite::LaunchAndWait(exe.c_str(), hanging.Arguments().c_str(), &wait),
              int(0x80070102));
    EXPECT_EQ(ReadMaskedLog(), Trail("LaunchAndWait", Quote(exe) + " " + hanging.Arguments() +
                                                          "\r\nProcess creation: 1\r\n"
                                                          "Program still running after 300 "
                                                          "seconds: ended\r\n"));
    const std::string alive = hanging.Arguments().substr(5) + ".alive";
    const HANDLE mutex = ::OpenMutexA(SYNCHRONIZE, FALSE, alive.c_str());
    EXPECT_EQ(::WaitForSingleObject(mutex, 10000), DWORD(WAIT_ABANDONED));
    ::ReleaseMutex(mutex);
    ::CloseHandle(mutex);
}

}  // namespace
