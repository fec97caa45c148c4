#include "exports/Helpers.h"
#include "exports/SlipstreamList.h"

#include "support/KiteTest.h"
#include "support/PlatformOverride.h"

namespace {

// Each item's first character is a tag that is never read; empty items are skipped.
TEST(SlipstreamList, CoversALevelWhenAnItemAfterItsTagReadsIt) {
    const std::tuple<const char*, int, bool> rows[] = {{",R3,,R5,", 5, true}, {"3,5", 3, false},
                                                       {"3,5", 0, true},      {",,", 0, false},
                                                       {"R 12x", 12, true},   {"R-4", -4, true}};
    for (const auto& [list, level, covers] : rows)
        EXPECT_EQ(kite::SlipstreamListCovers(list, level), covers) << list << " @" << level;
}

DWORD elevationType;
using AdminTest = kitetest::LogTest;

// Under Wine the shell always says administrator: its "no" and the elevation type are the seam's.
TEST_F(AdminTest, CheckIsUserAdminAnswersFromTheElevationType) {
    const char* rows[] = {
        "User is not using a split token. Return value: 0\r\n",
        "User has a split token, and the process is running elevated. Return value: 1\r\n",
        "User has a split token, but the process is not running elevated. Return value: 0\r\n"};
    kitetest::PlatformOverride platform;
    platform.calls().IsUserAnAdmin = []() -> BOOL { return FALSE; };
    platform.calls().GetTokenInformation = [](HANDLE, TOKEN_INFORMATION_CLASS, LPVOID type, DWORD,
                                              PDWORD) -> BOOL {
        return *static_cast<DWORD*>(type) = elevationType, TRUE;
    };
    for (elevationType = 1; elevationType <= 3; ++elevationType) {
        ClearLog();
        EXPECT_EQ(kite::CheckIsUserAdmin(), elevationType == 2 ? 1 : 0) << elevationType;
        EXPECT_EQ(ReadMaskedLog(), kitetest::Trail("CheckIsUserAdmin", rows[elevationType - 1]));
    }
}

}  // namespace
