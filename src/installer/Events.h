// Lines of the installation that also go out as telemetry events.
#pragma once

#include "telemetry/TelemetryReporter.h"

#include <ostream>
#include <string>

namespace kite {

inline void ReportError(const std::string& text) {
    TelemetryReporter::Instance().ReportEvent(0, text.c_str(), true);
}

inline void ReportInfo(const std::string& text) {
    TelemetryReporter::Instance().ReportEvent(0, text.c_str(), false);
}

// A line that goes both to the scope's log and out as an event.
inline void TraceAndReport(std::ostream& log, const std::string& text, bool isError) {
    log << text << std::endl;
    TelemetryReporter::Instance().ReportEvent(0, text.c_str(), isError);
}

}  // namespace kite
