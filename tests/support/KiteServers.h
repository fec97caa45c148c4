// The loopback servers (scripts/kiteservers.py), seen through the folder they share with Wine.
#pragma once

#include "support/KiteTest.h"

#include <vector>

namespace kitetest {

inline const std::string kShare = "C:\\kiteservers\\";

// While one lives, the registry points the library at the servers (cleared when it is made).
struct KiteServers {
    KiteServers();
    void ServeConfiguration(const std::string& document) const {
        WriteFileBytes(kShare + "config\\SplunkConfig.xml", document);
    }
    // How the collector behaves (see scripts/kiteservers.py); "" answers and closes.
    void SetCollectorMode(const std::string& mode, int holdSeconds = 30) const {
        WriteFileBytes(kShare + "control\\collector-mode", mode);
        WriteFileBytes(kShare + "control\\collector-hold", std::to_string(holdSeconds));
    }
    void Clear() const;  // served documents go away too: 404
    // The collector's in arrival order, raw: request line, headers in order, blank line, body.
    std::vector<std::string> Requests() const;
    std::size_t Connections() const;  // the collector's
    static void (*beforeReading)();   // waits for the library's queued events
    std::string restore, collector;   // host:port; the collector's host (port 443)
    RegistryValue configServer_, restoreServer_;
};

// Both channels enabled, each endpoint set with its own path.
std::string CollectorConfiguration(const std::string& collector);

}  // namespace kitetest
