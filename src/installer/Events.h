// Lines of the installation that also go out as telemetry events.
#pragma once

#include "telemetry/TelemetryReporter.h"

#include <string>

namespace kite {

inline void ReportError(const std::string& text) {
    TelemetryReporter::Instance().ReportEvent(0, text.c_str(), true);
}

inline void ReportInfo(const std::string& text) {
    TelemetryReporter::Instance().ReportEvent(0, text.c_str(), false);
}

}  // namespace kite
