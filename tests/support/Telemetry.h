// For tests that link the library: its telemetry reporter with a configuration fetched afresh from
// the loopback servers, as on its first use in a process.
#pragma once

#include "support/KiteServers.h"
#include "telemetry/TelemetryReporter.h"

namespace kitetest {

// Events leave through the library's sending thread: what the collector received is read after it.
inline const bool kFlushBeforeReading = (KiteServers::beforeReading = kite::FlushTelemetry, true);

inline kite::TelemetryReporter& ReloadTelemetry() {
    kite::TelemetryReporter::Instance() = kite::TelemetryReporter();
    kite::TelemetryReporter::Instance().LoadConfiguration();
    return kite::TelemetryReporter::Instance();
}

// The servers with the collector enabled for both channels, and the reporter reading them.
class TelemetryToCollector {
  public:
    TelemetryToCollector() {
        servers.ServeConfiguration(CollectorConfiguration(servers.collector));
        ReloadTelemetry();
        servers.Clear();
        servers.ServeConfiguration(CollectorConfiguration(servers.collector));
    }

    KiteServers servers;
};

}  // namespace kitetest
