#include "telemetry/TelemetryConfig.h"

#include "common/XmlDepth.h"

#include <boost/property_tree/xml_parser.hpp>

#include <sstream>
#include <stdexcept>

namespace kite {

namespace {

EndpointSet& SelectedSet(TelemetryConfig& config) {
    if (config.inLedSection) return config.inPerfSection ? config.ledPerf : config.ledProd;
    return config.inPerfSection ? config.trackPerf : config.trackProd;
}

// The switch's value is read from its first attribute when it has one, else from its text.
std::string KillSwitchValue(const boost::property_tree::ptree& element) {
    const auto attributes = element.find("<xmlattr>");
    if (attributes != element.not_found() && !attributes->second.empty()) {
        return attributes->second.front().second.data();
    }
    return element.data();
}

void ApplyNamedElement(TelemetryConfig& config, const std::string& name, const std::string& text) {
    if (name == "LED") {
        config.inLedSection = true;
    } else if (name == "Track") {
        config.inLedSection = false;
    } else if (name == "perf") {
        config.inPerfSection = true;
    } else if (name == "prod") {
        config.inPerfSection = false;
    } else if (text.empty()) {
        return;
    } else if (name == "enable") {
        (config.inLedSection ? config.ledEnabled : config.trackEnabled) = text == "true";
    } else if (name == "token") {
        (config.inLedSection ? config.ledToken : config.trackToken) = text;
    } else if (name == "loc") {
        SelectedSet(config).host = text;
    } else if (name == "endpoint") {
        SelectedSet(config).path = text;
    } else if (name == "header") {
        SelectedSet(config).header = text;
    }
}

}  // namespace

void ApplyConfigElement(TelemetryConfig& config, const ConfigElement& element) {
    const std::string& name = element.first;
    if (name == "KILL_SWITCH") {
        const std::string value = KillSwitchValue(element.second);
        config.killSwitchOpen = !value.empty() && value != "true";
        return;
    }
    ApplyNamedElement(config, name, element.second.data());
    for (const ConfigElement& child : element.second) {
        // The reader's own entries ("<xmlattr>", "<xmlcomment>") are not elements.
        if (child.first.empty() || child.first[0] != '<') ApplyConfigElement(config, child);
    }
}

TelemetryConfig ApplyConfigurationText(TelemetryConfig config, const std::string& text) {
    const std::string document(text.c_str());
    if (document.empty()) {
        config.ledEnabled = false;
        config.trackEnabled = false;
        return config;
    }
    try {
        // Refused before parsing, as a document that fails to parse.
        if (XmlNestingDepth(document) > kMaxXmlDepth) throw std::runtime_error("nested too deep");
        std::istringstream input(document);
        boost::property_tree::ptree tree;
        boost::property_tree::read_xml(input, tree, boost::property_tree::xml_parser::no_comments);
        for (const ConfigElement& root : tree) ApplyConfigElement(config, root);
    } catch (...) {
        config.ledEnabled = false;
        config.trackEnabled = false;
    }
    return config;
}

bool IsPerfEnvironment(const char* environment) {
    return environment != nullptr && std::strcmp(environment, "PDS") == 0;
}

const EndpointSet& ChooseEndpoint(const TelemetryConfig& config, bool isError, bool isPerf) {
    if (isError) return isPerf ? config.ledPerf : config.ledProd;
    return isPerf ? config.trackPerf : config.trackProd;
}

}  // namespace kite
