// The XML reader descends one native stack frame per nesting level, so a document nested a
// hundred thousand levels deep would overflow the stack of the host's thread. Documents from
// packages and from the network are measured before they are parsed.
#pragma once

#include <cstddef>
#include <string>

namespace kite {

// Deeper than any real manifest or configuration (they nest three or four levels) and far below
// what a thread's stack can take. A deeper document is refused before it is parsed.
constexpr std::size_t kMaxXmlDepth = 64;

// The deepest element nesting of the text, counted without parsing it: a start tag opens a level
// and its end tag closes it; a self-closing element reaches one level deeper without staying
// there. Comments, CDATA, declarations, processing instructions and quoted attribute values are
// stepped over, so the count never falls below what the reader's recursion would reach.
std::size_t XmlNestingDepth(const std::string& text);

}  // namespace kite
