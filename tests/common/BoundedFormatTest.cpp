#include "common/BoundedFormat.h"

#include <gtest/gtest.h>

#include <string>

// A result that fills the buffer but its terminator fits; one character more ends the process as
// the runtime's invalid-parameter handler does, instead of cutting the path short.
TEST(BoundedFormatDeathTest, FitsToTheLastCharacterAndEndsTheProcessBeyond) {
    char path[8], joined[8] = "abc";
    kite::FormatBounded(path, "%s\\%s", "abc", "def");
    kite::AppendBounded(joined, "\\def");
    EXPECT_EQ(std::string(path) + joined, "abc\\defabc\\def");
    const auto overflow = ::testing::ExitedWithCode(static_cast<int>(0xC0000417));
    EXPECT_EXIT(kite::FormatBounded(path, "%s\\%s", "abcd", "def"), overflow, "");
    EXPECT_EXIT(kite::AppendBounded(joined, "x"), overflow, "");
}
