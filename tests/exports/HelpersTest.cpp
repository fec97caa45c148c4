#include "exports/Helpers.h"
#include "exports/SlipstreamList.h"

#include "support/KiteTest.h"
#include "support/PlatformOverride.h"

namespace {

// Each item's first character is a tag that is never read; empty items are skipped.
TEST(SlipstreamList, CoversALevelWhenAnItemAfterItsTagReadsIt) {
    const std::tuple<const char*, int, bool> rows[] = {
        {"R3,R5", 5, true},  {"R3,R5", 4, false}, {",R3,,R5,", 5, true}, {"3,5", 3, false},
        {"3,5", 0, true},    {"17", 7, true},     {"R", 0, true},        {",,", 0, false},
        {"R 12x", 12, true}, {"R-4", -4, true},
    };
    for (const auto& [list, level, covers] : rows)
        EXPECT_EQ(kite::SlipstreamListCovers(list, level), covers) << list << " @" << level;
}

DWORD elevationType;
class AdminTest : public kitetest::LogTest {};

// Under Wine the shell always says administrator, so the shell's "no" and the token's elevation
// type come from the seam; the token itself is real.
TEST_F(AdminTest, CheckIsUserAdminAnswersFromTheElevationType) {
    const char* rows[] = {
        "User is not using a split token. Return value: 0",
        "User has a split token, and the process is running elevated. Return value: 1",
        "User has a split token, but the process is not running elevated. Return value: 0",
    };
    kitetest::PlatformOverride platform;
    platform.calls().IsUserAnAdmin = []() -> BOOL { return FALSE; };
    platform.calls().GetTokenInformation = [](HANDLE, TOKEN_INFORMATION_CLASS kind, LPVOID data,
                                              DWORD, PDWORD used) -> BOOL {
        *static_cast<DWORD*>(data) = kind == TokenElevationType ? elevationType : 0;
        *used = sizeof(DWORD);
        return TRUE;
    };
    for (elevationType = 1; elevationType <= 3; ++elevationType) {
        ClearLog();
        EXPECT_EQ(kite::CheckIsUserAdmin(), elevationType == 2 ? 1 : 0) << elevationType;
        EXPECT_EQ(ReadMaskedLog(), kitetest::Trail("CheckIsUserAdmin",
                                                   rows[elevationType - 1] + std::string("\r\n")));
    }
}

}  // namespace
