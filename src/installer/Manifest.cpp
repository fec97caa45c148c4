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

ManifestCommand ReadCommand(const ptree& command) {
    ManifestCommand values;
    values.src = command.get<std::string>("src");
    values.dst = command.get<std::string>("dst");
    values.serverType = command.get<int>("register");
    return values;
}

}  // namespace kite
