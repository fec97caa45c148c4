// The "Slipstreams" list of a package's applicability settings: comma-separated items, each a
// one-character tag followed by a release level ("R3,R5").
#pragma once

#include <string>
#include <vector>

namespace kite {

// The level of every non-empty item, in order. The tag is dropped unread, so "17" reads 7 and a
// one-character item reads 0.
std::vector<int> ParseSlipstreamList(const std::string& list);

bool SlipstreamListCovers(const std::string& list, int level);

}  // namespace kite
