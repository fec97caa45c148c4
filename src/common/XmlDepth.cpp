#include "common/XmlDepth.h"

#include <cstring>

namespace kite {

namespace {

// Position just past the first occurrence of terminator at or after from, or the end.
std::size_t After(const std::string& text, std::size_t from, const char* terminator) {
    const std::size_t found = text.find(terminator, from);
    return found == std::string::npos ? text.size() : found + std::strlen(terminator);
}

// Position just past the '>' that closes a start tag, skipping quoted attribute values.
std::size_t EndOfTag(const std::string& text, std::size_t from, bool* selfClosing) {
    char quote = 0;
    for (std::size_t i = from; i < text.size(); ++i) {
        const char c = text[i];
        if (quote != 0) {
            if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '>') {
            *selfClosing = i > from && text[i - 1] == '/';
            return i + 1;
        }
    }
    *selfClosing = false;
    return text.size();
}

}  // namespace

std::size_t XmlNestingDepth(const std::string& text) {
    std::size_t depth = 0;
    std::size_t deepest = 0;
    std::size_t i = text.find('<');
    while (i != std::string::npos && i < text.size()) {
        if (text.compare(i, 4, "<!--") == 0) {
            i = After(text, i + 4, "-->");
        } else if (text.compare(i, 9, "<![CDATA[") == 0) {
            i = After(text, i + 9, "]]>");
        } else if (text.compare(i, 2, "<?") == 0) {
            i = After(text, i + 2, "?>");
        } else if (text.compare(i, 2, "<!") == 0) {
            i = After(text, i + 2, ">");
        } else if (text.compare(i, 2, "</") == 0) {
            if (depth > 0) --depth;
            i = After(text, i + 2, ">");
        } else {
            bool selfClosing = false;
            i = EndOfTag(text, i + 1, &selfClosing);
            if (depth + 1 > deepest) deepest = depth + 1;
            if (!selfClosing) ++depth;
        }
        i = text.find('<', i);
    }
    return deepest;
}

}  // namespace kite
