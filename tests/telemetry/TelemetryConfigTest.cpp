#include "telemetry/TelemetryConfig.h"

#include "common/XmlDepth.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Describe(const kite::EndpointSet& set) {
    return "[" + set.host + "|" + set.path + "|" + set.header + "]";
}

std::string Describe(const kite::TelemetryConfig& c) {
    return "led " + std::to_string(c.ledEnabled) + " " + c.ledToken + " " + Describe(c.ledPerf) +
           Describe(c.ledProd) + "; track " + std::to_string(c.trackEnabled) + " " + c.trackToken +
           " " + Describe(c.trackPerf) + Describe(c.trackProd) + "; kill " +
           std::to_string(c.killSwitchOpen);
}

std::string Nested(int depth, const std::string& open, const std::string& inner) {
    std::string text;
    for (int i = 0; i < depth; ++i) text += open;
    text += inner;
    for (int i = 0; i < depth; ++i) text += "</a>";
    return text;
}

// Each document is read over a configuration whose channels were enabled with token "old", so
// that every row shows what the document changes and what it leaves.
TEST(TelemetryConfig, DocumentsAreReadByElementNamesAndCursors) {
    kite::TelemetryConfig before;
    before.ledEnabled = before.trackEnabled = true;
    before.ledToken = before.trackToken = "old";
    const std::string untouched = "led 1 old [||][||]; track 1 old [||][||]; kill 0";
    const std::string failed = "led 0 old [||][||]; track 0 old [||][||]; kill 0";
    struct Row {
        const char* what;
        std::string document;
        std::string read;
    };
    const Row rows[] = {
        {"sections in order",
         "<c><LED><enable>true</enable><token>L</token><perf><loc>a</loc><endpoint>/p</endpoint>"
         "<header>H: 1</header></perf><prod><loc>b</loc><endpoint>/q</endpoint></prod></LED>"
         "<Track><enable>false</enable><token>T</token><prod><loc>c</loc></prod><perf>"
         "<header>H: 2</header></perf></Track></c>",
         "led 1 L [a|/p|H: 1][b|/q|]; track 0 T [||H: 2][c||]; kill 0"},
        {"enable is exactly \"true\"",
         "<c><LED><enable>True</enable></LED><Track><enable>true </enable></Track></c>",
         "led 0 old [||][||]; track 0 old [||][||]; kill 0"},
        {"cursors are plain state, not scopes",
         "<c><LED><perf><Track/></perf><enable>false</enable><loc>x</loc></LED></c>",
         "led 1 old [||][||]; track 0 old [x||][||]; kill 0"},
        {"names are whole and case-sensitive; their children are walked",
         "<c><led><LEDs><enable>false</enable></LEDs></led></c>",
         "led 1 old [||][||]; track 0 old [||][||]; kill 0"},
        {"the later token wins; empty elements change nothing",
         "<c><LED><token>a</token><token>b</token><token/><enable/></LED></c>",
         "led 1 b [||][||]; track 1 old [||][||]; kill 0"},
        {"kill switch \"true\"", "<c><KILL_SWITCH>true</KILL_SWITCH></c>", untouched},
        {"kill switch other text; its children are not walked",
         "<c><KILL_SWITCH>off<enable>false</enable></KILL_SWITCH></c>",
         "led 1 old [||][||]; track 1 old [||][||]; kill 1"},
        {"empty document", "", failed},
        {"not XML", "this is not <xml", failed},
        {"the text ends at a zero byte",
         std::string("<c><LED><enable>no</enable></LED></c>\0<Track>", 45),
         "led 0 old [||][||]; track 1 old [||][||]; kill 0"},
        {"nesting one past the limit",
         Nested(kite::kMaxXmlDepth - 1, "<a>", "<LED><enable>no</enable></LED>"), failed},
        {"100,000 levels", Nested(100000, "<a>", ""), failed},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(Describe(kite::ApplyConfigurationText(before, row.document)), row.read)
            << row.what;
    }
}

}  // namespace
