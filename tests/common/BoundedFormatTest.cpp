#include "common/BoundedFormat.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(BoundedFormat, UsesEveryCharacterOfTheBufferButTheTerminator) {
    char path[8];
    kite::FormatBounded(path, "%s\\%s", "abc", "def");
    EXPECT_EQ(std::string(path), "abc\\def");

    char joined[8] = "abc";
    kite::AppendBounded(joined, "\\def");
    EXPECT_EQ(std::string(joined), "abc\\def");
}

// One character too many ends the process as the runtime's invalid-parameter handler does,
// instead of cutting the path short.
TEST(BoundedFormatDeathTest, OverflowEndsTheProcessWithTheInvalidArgumentCode) {
    const int code = static_cast<int>(kite::kInvalidArgumentExitCode);
    EXPECT_EXIT(
        {
            char path[8];
            kite::FormatBounded(path, "%s\\%s", "abcd", "def");
        },
        ::testing::ExitedWithCode(code), "");
    EXPECT_EXIT(
        {
            char joined[8] = "abcd";
            kite::AppendBounded(joined, "\\def");
        },
        ::testing::ExitedWithCode(code), "");
}

}  // namespace
