#include "support/LogLines.h"

#include <deque>
#include <sstream>

namespace kitetest {

std::vector<Lines> LinesOfScope(const std::string& maskedLog, const std::string& scope) {
    static const std::string entering = "<stamp> : Entering ";
    static const std::string exiting = "<stamp> : Exiting ";
    std::deque<Lines> calls;  // stable addresses while a call is still open
    std::vector<std::pair<std::string, Lines*>> open;
    std::istringstream log(maskedLog);
    std::string line;
    while (std::getline(log, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.compare(0, entering.size(), entering) == 0) {
            const std::string name = line.substr(entering.size());
            Lines* lines = nullptr;
            if (name == scope) {
                calls.emplace_back();
                lines = &calls.back();
            }
            open.emplace_back(name, lines);
        } else if (line.compare(0, exiting.size(), exiting) == 0) {
            if (!open.empty()) open.pop_back();
        } else if (!open.empty() && open.back().second != nullptr) {
            open.back().second->push_back(line);
        }
    }
    return std::vector<Lines>(calls.begin(), calls.end());
}

}  // namespace kitetest
