#include "common/Text.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include <windows.h>

namespace kite {

int TextToInt(const char* text) {
    errno = 0;
    const long long value = std::strtoll(text, nullptr, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

std::vector<std::string> SplitText(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    for (std::string::size_type start = 0;;) {
        const std::string::size_type end = text.find(separator, start);
        pieces.push_back(text.substr(start, end - start));
        if (end == std::string::npos) return pieces;
        start = end + 1;
    }
}

std::wstring WidenText(const std::string& text, unsigned int codePage) {
    if (text.empty()) return std::wstring();
    const int size = static_cast<int>(text.size());
    const int length = ::MultiByteToWideChar(codePage, 0, text.data(), size, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    if (length > 0) ::MultiByteToWideChar(codePage, 0, text.data(), size, &wide[0], length);
    return wide;
}

}  // namespace kite
