#include "exports/Helpers.h"

#include "support/KiteTest.h"
#include "support/PlatformOverride.h"

namespace {

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
