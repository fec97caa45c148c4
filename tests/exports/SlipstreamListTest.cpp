#include "exports/SlipstreamList.h"

#include <gtest/gtest.h>

namespace {

struct ListRow {
    const char* list;
    std::vector<int> levels;
};

TEST(SlipstreamList, DropsEachItemsTagAndSkipsEmptyItems) {
    const ListRow rows[] = {
        {"R3,R5", {3, 5}},
        {"R3,,R5", {3, 5}},
        {",R3,R5,", {3, 5}},
        {"3,5", {0, 0}},
        {"17", {7}},
        {"R", {0}},
        {"", {}},
        {",,", {}},
        {"R 12x,R-4,Rz", {12, -4, 0}},
        {"R99999999999", {2147483647}},
    };
    for (const ListRow& row : rows) {
        EXPECT_EQ(kite::ParseSlipstreamList(row.list), row.levels) << "list \"" << row.list << '"';
    }
}

}  // namespace
