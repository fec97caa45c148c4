#include "common/Text.h"

#include <windows.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace kite {

int TextToInt(const char* text) {
    errno = 0;
    const long long value = std::strtoll(text, nullptr, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

std::wstring WidenAnsi(const std::string& text) {
    const int length = ::MultiByteToWideChar(CP_THREAD_ACP, 0, text.c_str(), -1, nullptr, 0);
    if (length <= 0) return std::wstring();
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    ::MultiByteToWideChar(CP_THREAD_ACP, 0, text.c_str(), -1, &wide[0], length);
    wide.resize(static_cast<std::size_t>(length) - 1);
    return wide;
}

}  // namespace kite
