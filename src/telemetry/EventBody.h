// The form-encoded body of one telemetry event. Values are inserted as they stand: the collector
// takes the body as one raw line, so nothing is URL-encoded or escaped.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

namespace kite {

// The body buffer's size, terminator included: a body holds at most kEventBodyBytes - 1
// characters. Messages have no length bound of their own (a path can be long), so the reporter
// shortens the message of a body that would not fit (see FitMessage).
constexpr std::size_t kEventBodyBytes = 1700;

// 36 upper-case hexadecimal characters and hyphens, no braces.
std::string FormatEventId(const GUID& id);

// The message and the three product facts, each key preceded by a blank.
std::string EventFields(const char* message, bool isError, const std::string& slipStream,
                        const std::string& majorVersion, const std::string& buildNumber);

// The message as it fits in room characters: unchanged when it fits, else its first room - 3
// characters followed by "..." (empty when not even that fits), so that a collector sees that it
// was cut.
std::string FitMessage(const char* message, std::size_t room);

// The length of everything before the fields: fixed head, token, identifier, project and
// operating-system piece.
std::size_t EventHeadLength(bool isError, const std::string& token,
                            const std::string& operatingSystem);

// The fixed head of the channel, the token, the identifier, the project, the operating-system
// piece, then the fields; empty when that would not fit in kEventBodyBytes (such a body is not
// sent, rather than sent cut short).
std::string ComposeEventBody(bool isError, const std::string& token, const std::string& eventId,
                             const std::string& operatingSystem, const char* fields);

}  // namespace kite
