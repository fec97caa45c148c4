#include "exports/Helpers.h"

#include "support/KiteTest.h"
#include "support/PlatformOverride.h"

namespace {

using kitetest::Quote;
using kitetest::Trail;

class HelpersTest : public kitetest::LogTest {};

// What the seam answers in place of the shell and the token.
struct Rights {
    BOOL shellSaysAdmin;
    BOOL tokenOpens;
    DWORD elevationType;
    int elevationQueries;
};
Rights rights;

// Under Wine the shell always says administrator: the shell's answer and the token's elevation
// type come from the seam. The token itself is real, so that its handle is a real one to close.
TEST_F(HelpersTest, CheckIsUserAdminAnswersFromTheShellOrTheElevationType) {
    struct Row {
        Rights given;
        int admin;
        const char* line;
        int elevationQueries;
    };
    const Row rows[] = {
        {{TRUE, TRUE, 3, 0}, 1, " Return value: 1", 0},
        {{FALSE, TRUE, 1, 0}, 0, "User is not using a split token. Return value: 0", 1},
        {{FALSE, TRUE, 2, 0},
         1,
         "User has a split token, and the process is running elevated. Return value: 1",
         1},
        {{FALSE, TRUE, 3, 0},
         0,
         "User has a split token, but the process is not running elevated. Return value: 0",
         1},
        {{FALSE, TRUE, 7, 0}, 0, " Return value: 0", 1},
        {{FALSE, FALSE, 2, 0}, 0, " Return value: 0", 1},
    };
    kitetest::PlatformOverride platform;
    platform.calls().IsUserAnAdmin = []() -> BOOL { return rights.shellSaysAdmin; };
    platform.calls().OpenProcessToken = [](HANDLE process, DWORD access, PHANDLE token) -> BOOL {
        if (rights.tokenOpens) return ::OpenProcessToken(process, access, token);
        ::SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    };
    platform.calls().GetTokenInformation = [](HANDLE token, TOKEN_INFORMATION_CLASS kind,
                                              LPVOID data, DWORD bytes, PDWORD used) -> BOOL {
        ++rights.elevationQueries;
        if (token == nullptr || kind != TokenElevationType || bytes != sizeof(DWORD)) {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        *static_cast<DWORD*>(data) = rights.elevationType;
        *used = sizeof(DWORD);
        return TRUE;
    };
    for (const Row& row : rows) {
        rights = row.given;
        ClearLog();
        EXPECT_EQ(kite::CheckIsUserAdmin(), row.admin) << row.line;
        EXPECT_EQ(rights.elevationQueries, row.elevationQueries) << row.line;
        EXPECT_EQ(ReadMaskedLog(), Trail("CheckIsUserAdmin", std::string(row.line) + "\r\n"));
    }
}

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

TEST(FileNameOfPath, TextAfterTheLastBackslash) {
    const std::pair<std::string, std::string> rows[] = {
        {"C:\\a\\b.dll", "b.dll"},
        {"b.dll", "b.dll"},
        {"C:\\a\\", ""},
        {"", ""},
        {"C:/a/b.dll", "C:/a/b.dll"},
        {"\\\\server\\share\\x.ocx", "x.ocx"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(kite::FileNameOfPath(row.first), row.second) << row.first;
}

}  // namespace
