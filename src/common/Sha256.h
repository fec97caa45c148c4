// SHA-256 of files, through the system's own cryptography (CNG), for verifying a package's
// payload against the digest its manifest names.
#pragma once

#include <windows.h>

#include <string>

namespace kite {

// The digest of everything readable from the handle's current position, as 64 lower-case
// hexadecimal characters; empty when the file cannot be read or hashed.
std::string Sha256OfFile(HANDLE file);

// Whether the text is a digest as a manifest may write it: 64 hexadecimal characters, any case.
bool IsSha256Text(const std::string& text);

}  // namespace kite
