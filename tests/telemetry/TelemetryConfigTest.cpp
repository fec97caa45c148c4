#include "telemetry/TelemetryConfig.h"

#include "common/XmlDepth.h"

#include <gtest/gtest.h>

namespace {

std::string Describe(const kite::TelemetryConfig& c) {
    std::string text;
    for (const kite::EndpointSet* set : {&c.ledPerf, &c.ledProd, &c.trackPerf, &c.trackProd}) {
        text += "[" + set->host + "|" + set->path + "|" + set->header + "]";
    }
    return std::to_string(c.ledEnabled) + c.ledToken + " " + std::to_string(c.trackEnabled) +
           c.trackToken + " " + std::to_string(c.killSwitchOpen) + " " + text;
}

std::string Nested(int depth, const std::string& inner) {
    std::string open, close;
    for (int i = 0; i < depth; ++i) open += "<a>", close += "</a>";
    return open + inner + close;
}

// Read over channels enabled with token "old": each row shows what the document changes.
TEST(TelemetryConfig, DocumentsAreReadByElementNamesAndCursors) {
    kite::TelemetryConfig before;
    before.ledEnabled = before.trackEnabled = true;
    before.ledToken = before.trackToken = "old";
    const std::string none = "[||][||][||][||]", failed = "0old 0old 0 " + none;
    const std::pair<std::string, std::string> rows[] = {
        {"<c><LED><enable>true</enable><token>L</token><perf><loc>a</loc><endpoint>/p</endpoint>"
         "<header>H: 1</header></perf><prod><loc>b</loc><endpoint>/q</endpoint></prod></LED>"
         "<Track><enable>false</enable><token>T</token><prod><loc>c</loc></prod><perf>"
         "<header>H: 2</header></perf></Track></c>",
         "1L 0T 0 [a|/p|H: 1][b|/q|][||H: 2][c||]"},
        {"<c><LED><enable>True</enable></LED><Track><enable>true </enable></Track></c>", failed},
        // Cursors are plain state, not scopes; names are whole and case-sensitive.
        {"<c><LED><perf><Track/></perf><enable>false</enable><loc>x</loc></LED></c>",
         "1old 0old 0 [||][||][x||][||]"},
        {"<c><led><LEDs><enable>false</enable></LEDs></led></c>", "1old 0old 0 " + none},
        {"<c><LED><token>a</token><token>b</token><token/><enable/></LED></c>",
         "1b 1old 0 " + none},
        {"<c><KILL_SWITCH>true</KILL_SWITCH></c>", "1old 1old 0 " + none},
        {"<c><KILL_SWITCH>off<enable>false</enable></KILL_SWITCH></c>", "1old 1old 1 " + none},
        {"this is not <xml", failed},
        {std::string("<c><LED><enable>no</enable></LED></c>\0<Track>", 45), "0old 1old 0 " + none},
        {Nested(kite::kMaxXmlDepth - 1, "<LED><enable>no</enable></LED>"), failed},
        {Nested(100000, ""), failed},
    };
    for (const auto& [document, read] : rows) {
        EXPECT_EQ(Describe(kite::ApplyConfigurationText(before, document)), read)
            << document.substr(0, 80);
    }
}

}  // namespace
