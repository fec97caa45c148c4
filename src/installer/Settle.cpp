// Settling an installation: Commit throws away what was kept only for an undo, Abort puts the
// product folder back. Both walk the journal newest first, so a file's new copy is deleted
// before its old one is renamed back, and the old one is back before it is registered again.
#include "installer/KiteInstaller.h"

#include "common/Handles.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "installer/Events.h"
#include "log/ScopeLog.h"
#include "registration/ComServer.h"

#include <aclapi.h>
#include <shlobj.h>
#include <io.h>

namespace kite {

namespace {

bool Exists(const std::string& path) { return _access(path.c_str(), 0) == 0; }

bool ReadAll(HANDLE file, std::string& text) {
    char chunk[4096];
    DWORD read = 0;
    while (::ReadFile(file, chunk, sizeof chunk, &read, nullptr)) {
        if (read == 0) return true;
        text.append(chunk, read);
    }
    return false;
}

// The account that runs this installation.
bool IsProcessUser(PSID sid) {
    UniqueHandle token;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put())) return false;
    alignas(TOKEN_USER) BYTE buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD bytes = 0;
    return ::GetTokenInformation(token.get(), TokenUser, buffer, sizeof buffer, &bytes) &&
           ::EqualSid(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, sid);
}

// A journal is obeyed as administrator, so only one written by Administrators, SYSTEM or this
// installation's own account counts; a file system that reports no owner cannot tell, and the
// journal's form and paths still must pass.
bool OwnedByAdministrators(HANDLE file) {
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR raw = nullptr;
    if (::GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr,
                          nullptr, nullptr, &raw) != ERROR_SUCCESS) {
        return false;
    }
    const UniqueLocal descriptor(raw);
    return owner == nullptr || ::IsWellKnownSid(owner, WinBuiltinAdministratorsSid) ||
           ::IsWellKnownSid(owner, WinLocalSystemSid) || IsProcessUser(owner);
}

// Why a journal's records are not to be obeyed in this product folder, or empty.
std::string RecordsRefusal(const std::string& productFolder, const PendingJournal& journal) {
    if (!journal.wellFormed) return "it holds a line this library does not write";
    for (const ActionRecord& record : journal.records) {
        if (!PathInsideRefusal(productFolder, record.source).empty() ||
            (record.action == Action::RenamedAside &&
             !PathInsideRefusal(productFolder, record.destination).empty())) {
            return "it names a path outside the product folder: " + record.source;
        }
    }
    return std::string();
}

}  // namespace

// The marker's folder may not exist yet (no backup copy was made); without it the order to
// force the fix next time would be lost.
bool CreateEmptyMarker(const std::string& marker) {
    const std::string::size_type slash = marker.rfind('\\');
    Platform().SHCreateDirectory(nullptr,
                                 WidenText(marker.substr(0, slash), CP_THREAD_ACP).c_str());
    UniqueHandle file(::CreateFileA(marker.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    return file.valid();
}

// The marker goes last, after the journal: until then a host that finds the commit cut short
// forces the fix, and the installation that follows finishes the commit first.
void CKiteInstaller::Commit() {
    ScopeLog log("CKiteInstaller::Commit");
    std::string marker;
    while (!journal_.empty()) {
        const ActionRecord& record = journal_.back();
        if (record.action == Action::RenamedAside) DeleteFile_S(record.destination);
        if (record.action == Action::ForceMarker) marker = record.source;
        journal_.pop_back();
    }
    durable_.Finish();
    if (!marker.empty()) DeleteFile_S(marker);
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
            log << "Undo of action " << static_cast<int>(record.action) << " for " << record.source
                << " failed: " << error.what() << std::endl;
        }
        durable_.Settle({record});
    }
    durable_.Finish();
}

HRESULT CKiteInstaller::Recover() {
    ScopeLog log("RecoverKite");
    const std::string folderRefusal = ProductFolderRefusal(productFolder_);
    if (!folderRefusal.empty()) {
        log << "Refused: " << folderRefusal << ". Return = 80070057" << std::endl;
        return E_INVALIDARG;
    }
    const std::string path = JournalPath(productFolder_);
    log << "Journal: " << path << std::endl;
    std::string text;
    {
        UniqueHandle file(::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                        OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
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
        if (!OwnedByAdministrators(file.get())) {
            log << "Journal is owned by another account; nothing is touched. Return = "
                   "80070005"
                << std::endl;
            return E_ACCESSDENIED;
        }
    }
    PendingJournal pending = ReadJournalText(text);
    const std::string refusal = RecordsRefusal(productFolder_, pending);
    if (!refusal.empty()) {
        log << "Journal is not to be trusted, " << refusal
            << "; nothing is touched. Return = 8007000d" << std::endl;
        return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    }
    const std::vector<ActionRecord> notBegun = DropCopiesNotBegun(pending.records, Exists);
    log << "Pending records: " << pending.records.size()
        << (pending.committing ? ", commit begun" : "") << std::endl;
    folderSupport_ = pending.folderSupport;
    journal_.assign(pending.records.begin(), pending.records.end());
    durable_.Resume(productFolder_, pending.createdFolder);
    durable_.Settle(notBegun);
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
        case Action::RenamedAside:
            if (Exists(record.destination)) {
                log << "Rename: " << record.destination << " => " << record.source;
                const BOOL moved =
                    Platform().MoveFileA(record.destination.c_str(), record.source.c_str());
                log << " ret = " << moved << std::endl;
            }
            break;
        case Action::ForceMarker:
            log << "creating: " << record.source << std::endl;
            CreateEmptyMarker(record.source);
            break;
        case Action::FilePlaced:
            UndoPlacedFile(log, record);
            break;
        case Action::RegisterAgain:
            RegisterServer(record.source, 1, record.serverType, folderSupport_);
            break;
        case Action::UnregisterAgain:
            RegisterServer(record.source, 0, record.serverType, folderSupport_);
            break;
    }
}

// Deletes the file this installation placed. One held open cannot be deleted now; a delete at
// restart would also take the file of a forced installation made before the restart, so the old
// file is put back over it at restart instead, as Windows Installer does.
void CKiteInstaller::UndoPlacedFile(std::ostream& outer, const ActionRecord& record) {
    const std::string& path = record.source;
    if (!Exists(path)) return;
    if (FileIdentity(path) != record.identity) {
        outer << "Keeping " << path << ": it is not the file this installation placed" << std::endl;
        return;
    }
    ScopeLog log("CKiteInstaller::DeleteFile_S");
    log << "Deleting " << path;
    if (Platform().DeleteFileA(path.c_str())) {
        log << " - Success." << std::endl;
        return;
    }
    for (auto it = journal_.rbegin(); it != journal_.rend(); ++it) {
        if (it->action == Action::RenamedAside && it->source == path && Exists(it->destination)) {
            log << " - Failed. " << it->destination << " will replace it upon system reboot."
                << std::endl;
            Platform().MoveFileExA(it->destination.c_str(), path.c_str(),
                                   MOVEFILE_DELAY_UNTIL_REBOOT | MOVEFILE_REPLACE_EXISTING);
            return;
        }
    }
    log << " - Failed. The file stays until the fix is applied again." << std::endl;
}

void CKiteInstaller::DeleteFile_S(const std::string& path) {
    if (!Exists(path)) return;
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
