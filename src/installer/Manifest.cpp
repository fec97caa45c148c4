#include "installer/Manifest.h"

#include "common/XmlDepth.h"

#include <boost/property_tree/xml_parser.hpp>

#include <sstream>

namespace kite {

ptree ParseManifest(const char* text) {
    namespace xml = boost::property_tree::xml_parser;
    const std::string document = text == nullptr ? std::string() : std::string(text);
    if (XmlNestingDepth(document) > kMaxXmlDepth) {
        throw xml::xml_parser_error("elements nested too deeply", "", 0);
    }
    std::istringstream stream(document);
    ptree manifest;
    xml::read_xml(stream, manifest);
    return manifest;
}

PlannedCommand ReadCommand(const ptree& command) {
    PlannedCommand values;
    values.src = command.get<std::string>("src");
    values.dst = command.get<std::string>("dst");
    values.serverType = command.get<int>("register");
    if (const boost::optional<std::string> digest = command.get_optional<std::string>("sha256")) {
        values.hasDigest = true;
        values.sha256 = *digest;
    }
    return values;
}

std::vector<PlannedCommand> ReadCommands(const ptree& commands) {
    std::vector<PlannedCommand> plan;
    for (const ptree::value_type& child : commands) {
        if (child.first == "command") plan.push_back(ReadCommand(child.second));
    }
    return plan;
}

}  // namespace kite
