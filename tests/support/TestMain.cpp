#include <gtest/gtest.h>

#include <fcntl.h>
#include <io.h>
#include <cstdio>

int main(int argc, char** argv) {
    // Plain LF output, so that tools reading the listing on the Linux side see clean lines.
    _setmode(_fileno(stdout), _O_BINARY);
    ::testing::InitGoogleTest(&argc, argv);
    // Death tests re-run this program; "threadsafe" starts it afresh instead of forking.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
