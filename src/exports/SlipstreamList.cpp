#include "exports/SlipstreamList.h"

#include "common/Text.h"

#include <algorithm>

namespace kite {

std::vector<int> ParseSlipstreamList(const std::string& list) {
    std::vector<int> levels;
    std::string::size_type start = 0;
    while (start <= list.size()) {
        std::string::size_type comma = list.find(',', start);
        if (comma == std::string::npos) comma = list.size();
        if (comma > start) levels.push_back(TextToInt(list.substr(start + 1, comma - start - 1)));
        start = comma + 1;
    }
    return levels;
}

bool SlipstreamListCovers(const std::string& list, int level) {
    const std::vector<int> levels = ParseSlipstreamList(list);
    return std::find(levels.begin(), levels.end(), level) != levels.end();
}

}  // namespace kite
