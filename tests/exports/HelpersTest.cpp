#include "exports/Helpers.h"

#include "support/KiteTest.h"
#include "support/PlatformOverride.h"

namespace {

DWORD elevationType;
class AdminTest : public kitetest::LogTest {};

// Under Wine the shell always says administrator, so the shell's "no" and the token's elevation
// type come from the seam; the token itself is real.
TEST_F(AdminTest, CheckIsUserAdminAnswersFromTheElevationType) {
    const std::pair<DWORD, const char*> rows[] = {
        {1, "User is not using a split token. Return value: 0"},
        {2, "User has a split token, and the process is running elevated. Return value: 1"},
        {3, "User has a split token, but the process is not running elevated. Return value: 0"},
    };
    kitetest::PlatformOverride platform;
    platform.calls().IsUserAnAdmin = []() -> BOOL { return FALSE; };
    platform.calls().GetTokenInformation = [](HANDLE, TOKEN_INFORMATION_CLASS kind, LPVOID data,
                                              DWORD, PDWORD used) -> BOOL {
        *static_cast<DWORD*>(data) = kind == TokenElevationType ? elevationType : 0;
        *used = sizeof(DWORD);
        return TRUE;
    };
    for (const auto& row : rows) {
        elevationType = row.first;
        ClearLog();
        EXPECT_EQ(kite::CheckIsUserAdmin(), row.first == 2 ? 1 : 0) << row.second;
        EXPECT_EQ(ReadMaskedLog(),
                  kitetest::Trail("CheckIsUserAdmin", row.second + std::string("\r\n")));
    }
}

}  // namespace
