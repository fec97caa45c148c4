// Whether a package applies to the installed release, and whether it must be forced.
#include "KITEUpdate.h"

#include "common/BoundedFormat.h"
#include "exports/SlipstreamList.h"
#include "log/ScopeLog.h"

#include <windows.h>
#include <io.h>

using kite::ScopeLog;

extern "C" bool IsKITEApplicable(int level, std::string settingsPath) {
    try {
        ScopeLog log("IsKITEApplicable");
        char value[200] = {};
        ::GetPrivateProfileStringA("KITEApplicability", "Slipstreams", "", value, sizeof value,
                                   settingsPath.c_str());
        log << "Applicability = " << value << std::endl;
        log << "Slipstream = " << level << std::endl;
        const bool applies = kite::SlipstreamListCovers(value, level);
        log << "Return value : " << applies << std::endl;
        return applies;
    } catch (...) {
        return false;
    }
}

extern "C" int IsKITEToBeForceApplied(const char* folder) {
    try {
        ScopeLog log("IsKITEToBeForceApplied");
        if (folder == nullptr) {
            log << "Invalid argument: folder is null" << std::endl;
            log << "Return value = " << 0 << std::endl;
            return 0;
        }
        char marker[261];
        kite::FormatBounded(marker, "%s\\CriticalFixes\\force_apply_kite.dat", folder);
        // Presence alone orders the fix; the marker's contents are never read.
        const int forced = _access(marker, 0) == 0 ? 1 : 0;
        log << "Return value = " << forced << std::endl;
        return forced;
    } catch (...) {
        return 0;
    }
}
