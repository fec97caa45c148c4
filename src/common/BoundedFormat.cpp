#include "common/BoundedFormat.h"

#include <windows.h>

#include <cstdio>
#include <cstring>

namespace kite {

void FailInvalidArgument() {
    ::TerminateProcess(::GetCurrentProcess(), kInvalidArgumentExitCode);
    // TerminateProcess on the current process does not return; this keeps [[noreturn]] honest.
    ::ExitProcess(kInvalidArgumentExitCode);
}

void FormatBoundedV(char* buffer, std::size_t capacity, const char* format, std::va_list args) {
    if (buffer == nullptr || capacity == 0 || format == nullptr) FailInvalidArgument();
    const int written = std::vsnprintf(buffer, capacity, format, args);
    if (written < 0 || static_cast<std::size_t>(written) >= capacity) FailInvalidArgument();
}

void AppendBounded(char* buffer, std::size_t capacity, const char* text) {
    if (buffer == nullptr || text == nullptr) FailInvalidArgument();
    const std::size_t used = ::strnlen(buffer, capacity);
    const std::size_t extra = std::strlen(text);
    if (used >= capacity || extra >= capacity - used) FailInvalidArgument();
    std::memcpy(buffer + used, text, extra + 1);
}

}  // namespace kite
