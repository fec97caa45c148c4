#include "common/Text.h"

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

}  // namespace kite
