// The one formatter for fixed-size buffers (paths of 260 characters, command lines, event
// bodies). A result that does not fit is a fatal invalid-argument error, as the C runtime's
// checked formatters treat it: the process ends at once with kInvalidArgumentExitCode. A path
// silently cut short could name another file, so truncation is never an option.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace kite {

// STATUS_INVALID_CRT_PARAMETER: the exit code of a process ended by the runtime's
// invalid-parameter handler.
constexpr unsigned long kInvalidArgumentExitCode = 0xC0000417UL;

[[noreturn]] void FailInvalidArgument();

void FormatBoundedV(char* buffer, std::size_t capacity, const char* format, std::va_list args);
void AppendBounded(char* buffer, std::size_t capacity, const char* text);

// printf-style formatting into buffer; capacity counts the terminating NUL.
template <std::size_t N>
void FormatBounded(char (&buffer)[N], const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    FormatBoundedV(buffer, N, format, args);
    va_end(args);
}

template <std::size_t N>
void AppendBounded(char (&buffer)[N], const char* text) {
    AppendBounded(buffer, N, text);
}

}  // namespace kite
