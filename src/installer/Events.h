// Lines of the installation that also go out as telemetry events. None of them throws: telemetry
// never changes an installation's outcome.
#pragma once

#include "telemetry/TelemetryReporter.h"

#include <cstdio>
#include <ostream>
#include <string>

namespace kite {

inline void ReportEventQuietly(const std::string& text, bool isError) noexcept {
    try {
        TelemetryReporter::Instance().ReportEvent(0, text.c_str(), isError);
    } catch (...) {
    }
}

inline void ReportError(const std::string& text) noexcept { ReportEventQuietly(text, true); }

inline void ReportInfo(const std::string& text) noexcept { ReportEventQuietly(text, false); }

// A status as the log shows it: hexadecimal, without a prefix.
inline std::string HexStatus(long status) {
    char text[16];
    std::snprintf(text, sizeof text, "%lx", static_cast<unsigned long>(status));
    return text;
}

// A line that goes both to the scope's log and out as an event.
inline void TraceAndReport(std::ostream& log, const std::string& text, bool isError) {
    log << text << std::endl;
    ReportEventQuietly(text, isError);
}

}  // namespace kite
