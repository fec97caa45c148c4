// The form-encoded body of one telemetry event. Values are inserted as they stand: the collector
// takes the body as one raw line, so nothing is URL-encoded or escaped.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

namespace kite {

// The body buffer's size, terminator included. A longer body ends the process rather than
// reaching the collector cut short; callers keep their messages short.
constexpr std::size_t kEventBodyBytes = 1700;

// 36 upper-case hexadecimal characters and hyphens, no braces.
std::string FormatEventId(const GUID& id);

// The message and the three product facts, each key preceded by a blank.
std::string EventFields(const char* message, bool isError, const std::string& slipStream,
                        const std::string& majorVersion, const std::string& buildNumber);

// The fixed head of the channel, the token, the identifier, the project, the operating-system
// piece, then the fields.
std::string ComposeEventBody(bool isError, const std::string& token, const std::string& eventId,
                             const std::string& operatingSystem, const char* fields);

}  // namespace kite
