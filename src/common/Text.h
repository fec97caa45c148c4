// Text conversions shared by the parsers of lists, registry texts and INI values.
#pragma once

#include <string>
#include <vector>

namespace kite {

// The C runtime's text-to-integer rule (leading blanks, optional sign, digits up to the first
// non-digit, 0 when there are none), with out-of-range values held at the int limits instead of
// being undefined.
int TextToInt(const char* text);
inline int TextToInt(const std::string& text) { return TextToInt(text.c_str()); }

// The pieces of a text between its separators, empty ones included ("a,,b" gives "a", "", "b").
std::vector<std::string> SplitText(const std::string& text, char separator);

// The wide form of a text in an ANSI code page (the system's by default), for the platform calls
// that take only wide strings.
std::wstring WidenText(const std::string& text, unsigned int codePage = 0 /* CP_ACP */);

}  // namespace kite
