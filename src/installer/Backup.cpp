// Backup copies: before a program file or the build-information file is replaced, a copy of the
// installed one is kept in the product's CriticalFixes folder, and the first one is never
// replaced. A copy is written under a temporary name and takes its own name only once its bytes
// are durable, so that a crash can never leave a cut copy under a backup's name.
#include "installer/KiteInstaller.h"

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

bool Exists(const std::string& path) { return _access(path.c_str(), 0) == 0; }

}  // namespace

int CKiteInstaller::TakeBackup(unsigned int majorVersion, unsigned int release) {
    ScopeLog log("CKiteInstaller::TakeBackup");
    return RestorePolicyAnswer(log, majorVersion, release) == 0
               ? 0
               : BuiltInBackupAnswer(majorVersion, release);
}

// The plan knows whether the installed file exists and whether a backup of its name is kept
// already (or made earlier in this installation): the folder is held, so neither changes.
bool CKiteInstaller::BackupFile(CommandState& state, int backupFlag) {
    ScopeLog log("CKiteInstaller::BackupFile");
    const std::string& destination = state.command.dst;
    if (backupFlag == 0) {
        log << "Exiting from BackupFile method as the takeBackup flag is = " << backupFlag
            << std::endl;
        return true;
    }
    log << "Backup request for " << destination << std::endl;
    if (!state.facts.exists) {
        log << "File doesn't exist" << std::endl;
        return true;
    }
    if (!IsWorthBackingUp(destination)) {
        log << "Backup not required" << std::endl;
        return true;
    }
    bool result = true;
    if (state.facts.backupWanted) {
        const CopyJob job{nullptr, BackupTempPath(productFolder_, state.index), false,
                          state.backup};
        state.backupMade = CopyFile_S(destination, BackupPath(productFolder_, destination), job);
        if (!state.backupMade) {
            result = false;
            ReportError("KITE: Backup failed for " + FileNameOfPath(destination));
        }
    }
    log << "Return = " << result << std::endl;
    return result;
}

// Once its bytes are durable, a backup copy takes its name, unless a file of that name was
// backed up earlier in this installation.
bool CKiteInstaller::KeepBackup(CommandState& state) {
    if (!state.backupMade) return true;
    state.backupMade = false;
    state.backup.reset();
    const std::string temp = BackupTempPath(productFolder_, state.index);
    const std::string backup = BackupPath(productFolder_, state.command.dst);
    if (!Exists(backup) && Platform().MoveFileExA(temp.c_str(), backup.c_str(), 0)) return true;
    Platform().DeleteFileA(temp.c_str());
    return Exists(backup);
}

// Before the commit mark a copy under its temporary name may be cut short: it goes. After it,
// every copy is durable and takes its name as KeepBackup would.
void CKiteInstaller::RecoverBackup(const WorkItem& item, bool committing) {
    if (!Exists(item.temp)) return;
    if (!committing || Exists(item.target) ||
        !Platform().MoveFileExA(item.temp.c_str(), item.target.c_str(), 0)) {
        Platform().DeleteFileA(item.temp.c_str());
    }
}

}  // namespace kite
