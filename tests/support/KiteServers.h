// The loopback servers that the test set-up starts (kiteservers.py), seen from a Windows test
// program through the folder C:\kiteservers that both sides share: the content they serve, and
// every connection and request they received.
#pragma once

#include "support/KiteTest.h"

#include <string>
#include <vector>

namespace kitetest {

struct HttpRequest {
    std::string raw;  // as received: request line, headers in order, blank line, body
    std::string head;
    std::string body;
};

// One event as the collector received it: its kind and the message it carries.
struct ReceivedEvent {
    bool isError;
    std::string message;
    std::string body;
};

// While one lives, the registry points the library at the servers; every record and every piece
// of content is cleared when it is made.
class KiteServers {
  public:
    KiteServers();
    KiteServers(const KiteServers&) = delete;
    KiteServers& operator=(const KiteServers&) = delete;

    // Host:port of the configuration and restore servers; host of the collector (port 443).
    std::string config, restore, collector;

    void ServeConfiguration(const std::string& document) const;
    void ServeRestoreFile(const std::string& content) const;
    // How the collector behaves (see scripts/kiteservers.py); "" answers and closes.
    void SetCollectorMode(const std::string& mode, int holdSeconds = 30) const;
    // Served documents go away: their servers answer 404.
    void Clear() const;

    // What a server ("config", "restore", "collector") received, in arrival order.
    std::vector<HttpRequest> Requests(const std::string& server) const;
    int Connections(const std::string& server) const;
    // The events the collector received, in arrival order.
    std::vector<ReceivedEvent> Events() const;
    // Only the messages, each prefixed "error: " or "info: ".
    std::vector<std::string> EventMessages() const;

    // Set by the test programs that link the library: waits for its queued events.
    static void (*beforeReading)();

    RegistryValue configServer_;
    RegistryValue restoreServer_;
};

// The document of the tests: both channels enabled, each endpoint set with its own path.
std::string CollectorConfiguration(const std::string& collector);

}  // namespace kitetest
