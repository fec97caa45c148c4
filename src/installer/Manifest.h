// The package manifest: XML text whose root element "commands" names the product folder, the
// folder-support switch and one "command" element per file to install.
#pragma once

#include <boost/property_tree/ptree.hpp>

#include <string>

namespace kite {

using boost::property_tree::ptree;

// Parses the manifest's text (never a file name). Throws the XML reader's error for text that is
// not XML or that nests deeper than the reader can safely descend.
ptree ParseManifest(const char* text);

// One command's values, read with throwing gets from the command's own subtree.
struct ManifestCommand {
    std::string src;
    std::string dst;
    int serverType;
};
ManifestCommand ReadCommand(const ptree& command);

// Whether a child of "commands" is a command: the whole key, case-sensitively.
inline bool IsCommand(const ptree::value_type& child) { return child.first == "command"; }

}  // namespace kite
