// Which files an installation keeps a backup copy of, and for which releases backups stop.
#pragma once

#include <string>

namespace kite {

// 1 when the built-in table still wants backup copies for this major version and release.
int BuiltInBackupAnswer(unsigned int majorVersion, unsigned int release);

// Program files and the build-information file are worth a backup; data and text files are not.
bool IsWorthBackingUp(const std::string& path);

}  // namespace kite
