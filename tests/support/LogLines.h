// Reads a masked update log as a tree of scopes: which message lines each call of a scope wrote
// itself, apart from the lines of the scopes nested in it.
#pragma once

#include <string>
#include <vector>

namespace kitetest {

using Lines = std::vector<std::string>;

// One entry per call of the scope, in order, each with the message lines that call wrote
// directly (without their CR LF).
std::vector<Lines> LinesOfScope(const std::string& maskedLog, const std::string& scope);

}  // namespace kitetest
