#include "exports/SlipstreamList.h"

#include <gtest/gtest.h>

namespace {

// Each item's first character is a tag that is never read; empty items are skipped.
TEST(SlipstreamList, CoversALevelWhenAnItemAfterItsTagReadsIt) {
    const struct {
        const char* list;
        int level;
        bool covers;
    } rows[] = {
        {"R3,R5", 5, true}, {"R3,R5", 4, false}, {",R3,,R5,", 5, true}, {"3,5", 3, false},
        {"3,5", 0, true},   {"17", 7, true},     {"R", 0, true},        {"", 0, false},
        {",,", 0, false},   {"R 12x", 12, true}, {"R-4", -4, true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(kite::SlipstreamListCovers(row.list, row.level), row.covers)
            << '"' << row.list << "\" @" << row.level;
    }
}

}  // namespace
