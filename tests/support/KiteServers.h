// The loopback servers (scripts/kiteservers.py), seen through the folder they share with Wine.
#pragma once

#include "support/KiteTest.h"

#include <string>
#include <vector>

namespace kitetest {

inline const std::string kShare = "C:\\kiteservers\\";

struct HttpRequest {
    std::string raw, body;  // raw: request line, headers in order, blank line, body
};

// While one lives, the registry points the library at the servers (cleared when it is made).
class KiteServers {
  public:
    KiteServers();
    std::string config, restore, collector;  // host:port; the collector's host (port 443)
    void ServeConfiguration(const std::string& document) const {
        WriteFileBytes(kShare + "config\\SplunkConfig.xml", document);
    }
    void ServeRestoreFile(const std::string& content) const {
        WriteFileBytes(kShare + "restore\\restorekite.ini", content);
    }
    // How the collector behaves (see scripts/kiteservers.py); "" answers and closes.
    void SetCollectorMode(const std::string& mode, int holdSeconds = 30) const {
        WriteFileBytes(kShare + "control\\collector-mode", mode);
        WriteFileBytes(kShare + "control\\collector-hold", std::to_string(holdSeconds));
    }
    void Clear() const;  // served documents go away too: 404
    std::vector<HttpRequest> Requests(const std::string& server) const;  // in arrival order
    int Connections(const std::string& server) const;
    static void (*beforeReading)();  // waits for the library's queued events
    RegistryValue configServer_, restoreServer_;
};

// Both channels enabled, each endpoint set with its own path.
std::string CollectorConfiguration(const std::string& collector);

}  // namespace kitetest
