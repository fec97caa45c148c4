#include "support/LogLines.h"

#include <sstream>

namespace kitetest {

std::vector<Lines> LinesOfScope(const std::string& maskedLog, const std::string& scope) {
    static const std::string entering = "<stamp> : Entering ", exiting = "<stamp> : Exiting ";
    std::vector<Lines> calls;
    std::vector<std::size_t> open;  // per open scope, its call's index, or npos for other scopes
    std::istringstream log(maskedLog);
    for (std::string line; std::getline(log, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.rfind(entering, 0) == 0) {
            const bool ours = line.substr(entering.size()) == scope;
            if (ours) calls.emplace_back();
            open.push_back(ours ? calls.size() - 1 : std::string::npos);
        } else if (line.rfind(exiting, 0) == 0) {
            if (!open.empty()) open.pop_back();
        } else if (!open.empty() && open.back() != std::string::npos) {
            calls[open.back()].push_back(line);
        }
    }
    return calls;
}

}  // namespace kitetest
