// The XML reader descends one native stack frame per nesting level, so a document nested a
// hundred thousand levels deep would overflow the stack of the host's thread. Documents from
// packages and from the network are measured before they are parsed.
#pragma once

#include <cstddef>
#include <string>

namespace kite {

// Deeper than any real manifest or configuration (they nest three or four levels) and far below
// what a thread's stack can take.
constexpr std::size_t kMaxXmlDepth = 256;

// The deepest element nesting of the text: start tags open a level, end tags close one;
// self-closing tags, comments, CDATA, declarations and processing instructions do not count.
std::size_t XmlNestingDepth(const std::string& text);

}  // namespace kite
