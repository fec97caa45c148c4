#include "installer/BackupPolicy.h"

#include <cstring>

namespace kite {

int BuiltInBackupAnswer(unsigned int majorVersion, unsigned int release) {
    if (majorVersion >= 29) return 0;
    if (majorVersion == 28) return release >= 4006 ? 0 : 1;
    if (majorVersion == 27) return release >= 4009 ? 0 : 1;
    if (majorVersion == 26) return release >= 4014 ? 0 : 1;
    return 1;
}

bool IsWorthBackingUp(const std::string& path) {
    const std::string::size_type slash = path.rfind('\\');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (_stricmp(name.c_str(), "buildinfo.ini") == 0) return true;
    const std::string::size_type dot = path.rfind('.');
    if (dot == std::string::npos) return false;
    const char* extension = path.c_str() + dot + 1;
    return _stricmp(extension, "dll") == 0 || _stricmp(extension, "exe") == 0 ||
           _stricmp(extension, "ocx") == 0;
}

}  // namespace kite
