// Settling an installation: Commit throws away what was kept only for an undo, Abort puts the
// product folder back. Both walk the journal newest first, so a file's new copy is deleted
// before its old one is renamed back, and the old one is back before it is registered again.
#include "installer/KiteInstaller.h"

#include "common/Handles.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "installer/Events.h"
#include "log/ScopeLog.h"

#include <shlobj.h>
#include <io.h>

namespace kite {

namespace {

bool ReadAll(HANDLE file, std::string& text) {
    char chunk[4096];
    DWORD read = 0;
    while (::ReadFile(file, chunk, sizeof chunk, &read, nullptr)) {
        if (read == 0) return true;
        text.append(chunk, read);
    }
    return false;
}

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
    // From here on the installation only goes forward: the old files are about to go.
    durable.Committing();
    while (!journal_.empty()) {
        Forward(journal_.back());
        journal_.pop_back();
    }
    durable.Finish();
}

void CKiteInstaller::Forward(const ActionRecord& record) {
    if (record.action == kRenamedAside) DeleteFile_S(record.destination);
    if (record.action == kForceMarker) DeleteFile_S(record.source);
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
        durable.Settled(record);
    }
    durable.Finish();
}

HRESULT CKiteInstaller::Recover() {
    ScopeLog log("RecoverKite");
    const std::string path = JournalPath(productFolder_);
    log << "Journal: " << path << std::endl;
    std::string text;
    {
        UniqueHandle file(::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        const DWORD error = ::GetLastError();
        if (!file && (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)) {
            log << "Return = 0" << std::endl;
            return 0;
        }
        if (!file || !ReadAll(file.get(), text)) {
            const HRESULT failed = HRESULT_FROM_WIN32(file ? ::GetLastError() : error);
            log << "Journal cannot be read. Return = " << std::hex
                << static_cast<unsigned long>(failed) << std::endl;
            return failed;
        }
    }
    PendingJournal pending = ReadJournalText(text);
    const std::vector<ActionRecord> notBegun = DropCopiesNotBegun(
        pending.records, [](const std::string& path) { return _access(path.c_str(), 0) == 0; });
    log << "Pending records: " << pending.records.size()
        << (pending.committing ? ", commit begun" : "") << std::endl;
    folderSupport_ = pending.folderSupport;
    journal_.assign(pending.records.begin(), pending.records.end());
    durable.Resume(productFolder_, pending.createdFolder);
    for (const ActionRecord& record : notBegun) durable.Settled(record);
    HRESULT result = 1;
    if (pending.committing) {
        Commit();
        result = 2;
        ReportError("KITE: RecoverKite finished the commit of an interrupted installation in " +
                    productFolder_);
    } else {
        Abort();
        ReportError("KITE: RecoverKite undid an interrupted installation in " + productFolder_);
    }
    log << "Return = " << result << std::endl;
    return result;
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
