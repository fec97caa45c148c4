// The telemetry configuration as the downloaded "SplunkConfig.xml" sets it, and the walk that
// reads the document. Only element names matter: the two channels ("LED" for errors, "Track" for
// tracking) and the two environments ("perf", "prod") are cursors that each element sets or
// clears as the walk passes it, whatever the nesting, and "enable", "token", "loc", "endpoint"
// and "header" land in the channel and endpoint set that the cursors select at that moment.
#pragma once

#include <boost/property_tree/ptree.hpp>

#include <cstddef>
#include <string>

namespace kite {

// Where and how one channel posts in one environment.
struct EndpointSet {
    std::string host;    // "loc"
    std::string path;    // "endpoint"
    std::string header;  // "header": one extra request header line, sent as it stands
};

struct TelemetryConfig {
    bool ledEnabled = false;
    std::string ledToken;
    EndpointSet ledPerf;
    EndpointSet ledProd;
    bool trackEnabled = false;
    std::string trackToken;
    EndpointSet trackPerf;
    EndpointSet trackProd;
    // Sending stops only when the gate is set and the switch is not open. Nothing sets the gate,
    // so "KILL_SWITCH" is recorded and stops nothing; a channel is turned off by its "enable".
    bool killSwitchGate = false;
    bool killSwitchOpen = false;
    bool inLedSection = false;
    bool inPerfSection = false;
};

// One element of the parsed document: its name and its tree (text, attributes, children).
using ConfigElement = boost::property_tree::ptree::value_type;

// The pre-order walk of one element and its children, in document order.
void ApplyConfigElement(TelemetryConfig& config, const ConfigElement& element);

// The configuration after reading a fetched document (up to its first zero byte): an empty text
// or one that fails to parse leaves both channels disabled; values already taken stay.
TelemetryConfig ApplyConfigurationText(TelemetryConfig config, const std::string& text);

// "PDS" (exactly) selects the perf endpoint sets; any other name, the prod sets.
bool IsPerfEnvironment(const char* environment);
const EndpointSet& ChooseEndpoint(const TelemetryConfig& config, bool isError, bool isPerf);

}  // namespace kite
