// Text conversions shared by the parsers of lists, registry texts and INI values.
#pragma once

#include <string>

namespace kite {

// The C runtime's text-to-integer rule (leading blanks, optional sign, digits up to the first
// non-digit, 0 when there are none), with out-of-range values held at the int limits instead of
// being undefined.
int TextToInt(const char* text);
inline int TextToInt(const std::string& text) { return TextToInt(text.c_str()); }

// ANSI text of the thread's code page as the wide text that wide-only platform calls take.
std::wstring WidenAnsi(const std::string& text);

}  // namespace kite
