#include "installer/KiteInstaller.h"

#include "common/BoundedFormat.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "exports/Helpers.h"
#include "installer/BackupPolicy.h"
#include "installer/Events.h"
#include "log/ScopeLog.h"

#include <shlobj.h>
#include <io.h>

namespace kite {

namespace {

// Where the restore policy is downloaded: the user's roaming application-data folder.
bool RestorePolicyPath(char (&path)[260]) {
    char folder[MAX_PATH] = {};
    if (FAILED(::SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder))) {
        return false;
    }
    FormatBounded(path, "%s%s", folder, "\\restorekite.ini");
    return true;
}

// The policy file's verdict for this release: 0 stops backups, -1 leaves it to the table. The
// file can only switch backups off.
int RestorePolicyAnswer(ScopeLog& log, const char* policy, unsigned int majorVersion,
                        unsigned int release) {
    if (CKiteInstaller::SendRequestAndGetResponse(policy) != S_OK) return -1;
    char value[260] = {};
    const std::string key = std::to_string(majorVersion);
    const DWORD read =
        ::GetPrivateProfileStringA("takebackup", key.c_str(), nullptr, value, sizeof value, policy);
    if (read == 0 || value[0] == '\0') {
        const std::string text =
            "CKiteInstaller::TakeBackup Failed to read from restorekite.ini files with "
            "GetLastError :  " +
            std::to_string(::GetLastError());
        TraceAndReport(log, text, true);
        return -1;
    }
    return TextToInt(value) <= static_cast<int>(release) ? 0 : -1;
}

}  // namespace

int CKiteInstaller::TakeBackup(unsigned int majorVersion, unsigned int release) {
    ScopeLog log("CKiteInstaller::TakeBackup");
    char policy[260] = {};
    int answer = -1;
    if (RestorePolicyPath(policy)) {
        // The last installation's copy is stale: only a fresh download may decide.
        if (_access(policy, 0) == 0 && !Platform().DeleteFileA(policy)) {
            const std::string text =
                "CKiteInstaller::TakeBackup Failed to delete restorekite.ini files with "
                "GetLastError :  " +
                std::to_string(::GetLastError());
            TraceAndReport(log, text, true);
        }
        answer = RestorePolicyAnswer(log, policy, majorVersion, release);
    }
    return answer == 0 ? 0 : BuiltInBackupAnswer(majorVersion, release);
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
