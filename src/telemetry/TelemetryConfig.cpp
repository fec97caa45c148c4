#include "telemetry/TelemetryConfig.h"

#include <boost/property_tree/xml_parser.hpp>

#include <cstring>
#include <sstream>
#include <stdexcept>

namespace kite {

namespace {

// Position just past the first `end` at or after `from`, or the end of the text.
std::size_t SkipPast(const std::string& text, std::size_t from, const char* end) {
    const std::size_t found = text.find(end, from);
    return found == std::string::npos ? text.size() : found + std::strlen(end);
}

// Position just past the '>' that ends the tag starting at `from`, stepping over quoted values.
std::size_t SkipTag(const std::string& text, std::size_t from) {
    char quote = '\0';
    for (std::size_t i = from; i < text.size(); ++i) {
        const char c = text[i];
        if (quote != '\0') {
            if (c == quote) quote = '\0';
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '>') {
            return i + 1;
        }
    }
    return text.size();
}

bool StartsAt(const std::string& text, std::size_t at, const char* prefix) {
    return text.compare(at, std::strlen(prefix), prefix) == 0;
}

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

std::size_t ElementDepth(const std::string& text) {
    std::size_t depth = 0;
    std::size_t deepest = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        if (text[i] != '<') {
            ++i;
        } else if (StartsAt(text, i, "<!--")) {
            i = SkipPast(text, i + 4, "-->");
        } else if (StartsAt(text, i, "<![CDATA[")) {
            i = SkipPast(text, i + 9, "]]>");
        } else if (StartsAt(text, i, "<?")) {
            i = SkipPast(text, i + 2, "?>");
        } else if (StartsAt(text, i, "<!")) {
            i = SkipTag(text, i + 2);
        } else if (StartsAt(text, i, "</")) {
            if (depth > 0) --depth;
            i = SkipTag(text, i + 2);
        } else {
            const std::size_t end = SkipTag(text, i + 1);
            const bool empty = end >= 2 && text[end - 1] == '>' && text[end - 2] == '/';
            if (!empty && ++depth > deepest) deepest = depth;
            if (empty && depth + 1 > deepest) deepest = depth + 1;
            i = end;
        }
    }
    return deepest;
}

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
        if (ElementDepth(document) > kMaxConfigDepth) throw std::runtime_error("nested too deep");
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
