#include "common/XmlDepth.h"

#include <gtest/gtest.h>

namespace {

TEST(XmlDepth, CountsTheLevelsTheReaderDescends) {
    struct Row {
        std::string text;
        std::size_t depth;
    };
    const Row rows[] = {
        {"", 0},
        {"<a/>", 1},
        {"<a></a>", 1},
        {"<?xml version=\"1.0\"?><!DOCTYPE a><a><b><c/></b><b>t</b></a>", 3},
        {"<a><!-- <b><c> --><![CDATA[<d><e>]]></a>", 1},
        {"<a x=\"1>2\" y='/>'><b/></a>", 2},
        {"<a><b><c>", 3},
        {std::string(100000, 'x') + "<a>", 1},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(kite::XmlNestingDepth(row.text), row.depth) << row.text.substr(0, 60);
    }
    std::string deep;
    for (int i = 0; i < 100000; ++i) deep += "<n>";
    EXPECT_EQ(kite::XmlNestingDepth(deep), 100000u);
}

}  // namespace
