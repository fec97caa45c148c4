// The package manifest: XML text whose root element "commands" names the product folder, the
// folder-support switch and one "command" element per file to install.
#pragma once

#include "installer/CommandCheck.h"

#include <boost/property_tree/ptree.hpp>

#include <string>
#include <vector>

namespace kite {

using boost::property_tree::ptree;

// Parses the manifest's text (never a file name). Throws the XML reader's error for text that is
// not XML or that nests deeper than the reader can safely descend.
ptree ParseManifest(const char* text);

// One command's values, read with throwing gets from the command's own subtree; "sha256" is
// optional.
PlannedCommand ReadCommand(const ptree& command);

// Every child of "commands" whose key is exactly "command", in document order.
std::vector<PlannedCommand> ReadCommands(const ptree& commands);

}  // namespace kite
