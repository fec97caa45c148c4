// Settling an installation: Commit throws away what was kept only for an undo, Abort puts the
// product folder back. Both walk the journal newest first, so a file's new copy is deleted
// before its old one is renamed back, and the old one is back before it is registered again.
#include "installer/KiteInstaller.h"

#include "common/Handles.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "log/ScopeLog.h"

#include <shlobj.h>
#include <io.h>

namespace kite {

namespace {

// The marker's folder may not exist yet (no backup copy was made); without it the order to
// force the fix next time would be lost.
void CreateEmptyMarker(const std::string& marker) {
    const std::string::size_type slash = marker.rfind('\\');
    if (slash != std::string::npos) {
        Platform().SHCreateDirectory(nullptr,
                                     WidenText(marker.substr(0, slash), CP_THREAD_ACP).c_str());
    }
    UniqueHandle file(::CreateFileA(marker.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
}

}  // namespace

void CKiteInstaller::Commit() {
    ScopeLog log("CKiteInstaller::Commit");
    while (!journal_.empty()) {
        const ActionRecord& record = journal_.back();
        if (record.action == kRenamedAside) DeleteFile_S(record.destination);
        if (record.action == kForceMarker) DeleteFile_S(record.source);
        journal_.pop_back();
    }
}

void CKiteInstaller::Abort() {
    ScopeLog log("CKiteInstaller::Abort");
    while (!journal_.empty()) {
        const ActionRecord record = journal_.back();
        journal_.pop_back();
        try {
            Undo(log, record);
        } catch (const std::exception& error) {
            // One record that cannot be undone must not keep the older ones from being undone.
            log << "Undo of action " << record.action << " for " << record.source
                << " failed: " << error.what() << std::endl;
        }
    }
}

void CKiteInstaller::Undo(std::ostream& log, const ActionRecord& record) {
    switch (record.action) {
        case kRenamedAside:
            if (_access(record.destination.c_str(), 0) == 0) {
                log << "Rename: " << record.destination << " => " << record.source;
                const BOOL moved =
                    Platform().MoveFileA(record.destination.c_str(), record.source.c_str());
                log << " ret = " << moved << std::endl;
            }
            break;
        case kForceMarker:
            log << "creating: " << record.source << std::endl;
            CreateEmptyMarker(record.source);
            break;
        case kFilePlaced:
            DeleteFile_S(record.source);
            break;
        case kRegisterAgain:
            RegisterServer(record.source, 1, TextToInt(record.destination));
            break;
        case kUnregisterAgain:
            RegisterServer(record.source, 0, TextToInt(record.destination));
            break;
        default:
            break;
    }
}

void CKiteInstaller::DeleteFile_S(const std::string& path) {
    if (_access(path.c_str(), 0) != 0) return;
    ScopeLog log("CKiteInstaller::DeleteFile_S");
    log << "Deleting " << path;
    if (Platform().DeleteFileA(path.c_str())) {
        log << " - Success." << std::endl;
    } else {
        log << " - Failed. File will be deleted upon system reboot." << std::endl;
        Platform().MoveFileExA(path.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
    }
}

}  // namespace kite
