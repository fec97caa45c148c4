// The operating system's name and bitness as an event reports them.
#pragma once

#include <windows.h>

#include <functional>
#include <string>

namespace kite {

// Whether the system is at least major.minor with at least that service pack.
using VersionTest = std::function<bool(WORD major, WORD minor, WORD servicePack)>;

// The name of the one row of the product's table whose lower bound the system meets and whose
// upper bound it does not, ending in a quotation mark and an ampersand; "" below Windows XP. The
// table stops at 6.3, so every later system is named as 6.3.
const char* OperatingSystemName(const VersionTest& atLeast, bool isServer);

// "OS=", the bitness ("64 Bit " only for a process under 32-bit emulation) and the name.
std::string OperatingSystemPiece(bool underWow64, const char* name);

// The piece for this machine, from the platform's version tests and IsWow64Process.
std::string DescribeOperatingSystem();

}  // namespace kite
