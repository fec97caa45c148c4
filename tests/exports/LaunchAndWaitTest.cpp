#include "exports/Helpers.h"

#include "support/KiteTest.h"

namespace {

using kitetest::Quote;
using kitetest::Trail;

class HelpersTest : public kitetest::LogTest {};

// kitechild records the command line it was given and exits with the code it was asked for.
TEST_F(HelpersTest, LaunchAndWaitQuotesTheProgramAndAnswersItsExitCode) {
    kitetest::TempFolder folder("launch");
    kitetest::CreateFolders(folder / "with blanks");
    const std::string program = folder / "with blanks\\kite child.exe";
    kitetest::CopyFileTo(kitetest::HeldProgram::ProgramPath(), program);
    const std::string record = folder / "line.txt";
    struct Row {
        std::string program;
        std::string arguments;
        int result;
        std::string logged;  // the lines after the command line
    };
    const Row rows[] = {
        {program, "record " + record + " 7", 7, "Process creation: 1\r\nExit code: 7\r\n"},
        {program, "record " + record + " 0xE0000001  \"two words\" a\\\"b ", int(0xE0000001),
         "Process creation: 1\r\nExit code: 3758096385\r\n"},
        {folder / "with blanks\\missing.exe", "record " + record + " 7", int(0x80070002),
         "Process creation: 0\r\n"},
    };
    const DWORD wait = 1;
    for (const Row& row : rows) {
        ::DeleteFileA(record.c_str());
        ClearLog();
        const std::string commandLine = Quote(row.program) + " " + row.arguments;
        EXPECT_EQ(kite::LaunchAndWait(row.program.c_str(), row.arguments.c_str(), &wait),
                  row.result)
            << commandLine;
        EXPECT_EQ(ReadMaskedLog(), Trail("LaunchAndWait", commandLine + "\r\n" + row.logged));
        if (row.program == program) {
            EXPECT_EQ(kitetest::ReadFileBytes(record), commandLine);
        }
    }
}

TEST_F(HelpersTest, LaunchAndWaitWithoutWaitingAnswersStillActive) {
    kitetest::HeldProgram held;
    const std::string program = kitetest::HeldProgram::ProgramPath();
    const DWORD wait = 0;
    EXPECT_EQ(kite::LaunchAndWait(program.c_str(), held.Arguments().c_str(), &wait),
              int(STILL_ACTIVE));
    held.WaitUntilRunning();
    held.Stop();
    EXPECT_EQ(ReadMaskedLog(), Trail("LaunchAndWait", Quote(program) + " " + held.Arguments() +
                                                          "\r\nProcess creation: 1\r\n"
                                                          "Exit code: 259\r\n"));
}

TEST_F(HelpersTest, LaunchAndWaitRefusesNullArgumentsWithALogLine) {
    const DWORD wait = 1;
    EXPECT_EQ(kite::LaunchAndWait(nullptr, "", &wait), E_INVALIDARG);
    EXPECT_EQ(kite::LaunchAndWait("C:\\x.exe", nullptr, &wait), E_INVALIDARG);
    EXPECT_EQ(kite::LaunchAndWait("C:\\x.exe", "", nullptr), E_INVALIDARG);
    const std::string trail =
        Trail("LaunchAndWait", "Invalid argument: program, arguments or wait flag is null\r\n");
    EXPECT_EQ(ReadMaskedLog(), trail + trail + trail);
}

}  // namespace
