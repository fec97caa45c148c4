#include "installer/KiteInstaller.h"

#include "common/BoundedFormat.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "exports/Helpers.h"
#include "installer/BackupPolicy.h"
#include "installer/Events.h"
#include "log/ScopeLog.h"
#include "telemetry/Download.h"

#include <io.h>

namespace kite {

namespace {

// The policy's verdict for this release: 0 stops backups, -1 leaves it to the table. The policy
// can only switch backups off. It is read from memory: nothing is written to or deleted from the
// user's roaming folder, where a planted link would redirect the administrator's file operations.
int RestorePolicyAnswer(ScopeLog& log, unsigned int majorVersion, unsigned int release) {
    std::string policy;
    if (SendRequestAndGetResponse(policy) != S_OK) return -1;
    const std::string value =
        ProfileString(policy, "takebackup", std::to_string(majorVersion).c_str());
    if (value.empty()) {
        // The code that the profile API leaves for a key it does not find.
        TraceAndReport(log,
                       "CKiteInstaller::TakeBackup Failed to read from restorekite.ini files with "
                       "GetLastError :  " +
                           std::to_string(ERROR_FILE_NOT_FOUND),
                       true);
        return -1;
    }
    return TextToInt(value.c_str()) <= static_cast<int>(release) ? 0 : -1;
}

}  // namespace

int CKiteInstaller::TakeBackup(unsigned int majorVersion, unsigned int release) {
    ScopeLog log("CKiteInstaller::TakeBackup");
    return RestorePolicyAnswer(log, majorVersion, release) == 0
               ? 0
               : BuiltInBackupAnswer(majorVersion, release);
}

bool CKiteInstaller::BackupFile(const std::string& destination, int backupFlag) {
    ScopeLog log("CKiteInstaller::BackupFile");
    if (backupFlag == 0) {
        log << "Exiting from BackupFile method as the takeBackup flag is = " << backupFlag
            << std::endl;
        return true;
    }
    log << "Backup request for " << destination << std::endl;
    if (_access(destination.c_str(), 0) != 0) {
        log << "File doesn't exist" << std::endl;
        return true;
    }
    if (!IsWorthBackingUp(destination)) {
        log << "Backup not required" << std::endl;
        return true;
    }
    bool result = true;
    const std::string name = FileNameOfPath(destination);
    char backup[260];
    FormatBounded(backup, "%s\\CriticalFixes\\%s", productFolder_.c_str(), name.c_str());
    // The first installation's backup copy is the one worth keeping.
    if (_access(backup, 0) != 0 && !CopyFile_S(destination, backup)) {
        result = false;
        ReportError("KITE: Backup failed for " + name);
    }
    log << "Return = " << result << std::endl;
    return result;
}

}  // namespace kite
