#include "common/BoundedFormat.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// A result that fills the buffer but its terminator fits; one character more ends the process as
// the runtime's invalid-parameter handler does, instead of cutting the path short.
TEST(BoundedFormatDeathTest, FitsToTheLastCharacterAndEndsTheProcessBeyond) {
    char path[8];
    kite::FormatBounded(path, "%s\\%s", "abc", "def");
    EXPECT_EQ(std::string(path), "abc\\def");
    char joined[8] = "abc";
    kite::AppendBounded(joined, "\\def");
    EXPECT_EQ(std::string(joined), "abc\\def");

    const auto overflow = ::testing::ExitedWithCode(static_cast<int>(0xC0000417));
    EXPECT_EXIT(kite::FormatBounded(path, "%s\\%s", "abcd", "def"), overflow, "");
    EXPECT_EXIT(kite::AppendBounded(joined, "x"), overflow, "");
}

}  // namespace
