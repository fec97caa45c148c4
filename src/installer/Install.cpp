// The engine: the order of one installation, its action journal and journal file, commit, undo
// and the recovery of an installation that was cut short.
#include "installer/KiteInstaller.h"

#include "KITEUpdate.h"
#include "common/Platform.h"
#include "exports/Helpers.h"
#include "installer/Events.h"
#include "installer/Signature.h"
#include "installer/Verify.h"
#include "log/ScopeLog.h"
#include "registration/ComServer.h"

#include <aclapi.h>
#include <io.h>

namespace kite {

namespace {

// Flushing many files one after the other waits for the disk once per file; from several
// threads at once the file system commits them together.
constexpr std::size_t kFlushThreads = 8;
constexpr std::size_t kFilesWorthThreads = 8;

bool Exists(const std::string& path) { return _access(path.c_str(), 0) == 0; }

struct FlushWork {
    std::vector<HANDLE> files;
    volatile LONG next = 0;
    volatile LONG failed = 0;
};

DWORD WINAPI FlushSome(void* parameter) {
    FlushWork& work = *static_cast<FlushWork*>(parameter);
    for (LONG i;
         (i = ::InterlockedIncrement(&work.next) - 1) < static_cast<LONG>(work.files.size());) {
        if (!Platform().FlushFileBuffers(work.files[static_cast<std::size_t>(i)])) {
            ::InterlockedCompareExchange(&work.failed, static_cast<LONG>(::GetLastError()), 0);
        }
    }
    return 0;
}

// Windows flushes a whole volume for an administrator: one flush for every file written. Where
// that is not offered (Wine), each file is flushed, many of them from a few threads.
bool FlushFiles(const std::string& productFolder, std::vector<HANDLE> files) {
    if (files.empty()) return true;
    char volume[MAX_PATH];
    if (::GetVolumePathNameA(productFolder.c_str(), volume, sizeof volume) &&
        std::strlen(volume) == 3 && volume[1] == ':') {
        const std::string device = std::string("\\\\.\\") + volume[0] + ":";
        const UniqueHandle whole(::CreateFileA(device.c_str(), GENERIC_WRITE,
                                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                               OPEN_EXISTING, 0, nullptr));
        if (whole && Platform().FlushFileBuffers(whole.get())) return true;
    }
    FlushWork work;
    work.files = std::move(files);
    std::vector<UniqueHandle> threads;
    for (std::size_t i = 1; work.files.size() >= kFilesWorthThreads && i < kFlushThreads; ++i) {
        threads.emplace_back(::CreateThread(nullptr, 0, FlushSome, &work, 0, nullptr));
        if (!threads.back()) threads.pop_back();
    }
    FlushSome(&work);
    for (const UniqueHandle& thread : threads) ::WaitForSingleObject(thread.get(), INFINITE);
    if (work.failed != 0) ::SetLastError(static_cast<DWORD>(work.failed));
    return work.failed == 0;
}

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

bool IsIdentity(const std::string& text) {
    const std::string::size_type colon = text.find(':');
    return text.empty() || (colon > 0 && colon != std::string::npos && colon + 1 < text.size() &&
                            text.find_first_not_of("0123456789:") == std::string::npos &&
                            text.find(':', colon + 1) == std::string::npos);
}

// Why a journal's changes are not to be obeyed in this product folder, or empty.
std::string JournalRefusal(const std::string& productFolder, const InstallPlan& plan) {
    if (!plan.wellFormed) return "it holds a line this library does not write";
    for (const WorkItem& item : plan.items) {
        for (const std::string* path : {&item.target, &item.aside, &item.temp}) {
            if (!path->empty() && !PathInsideRefusal(productFolder, *path).empty()) {
                return "it names a path outside the product folder: " + *path;
            }
        }
        if (!IsIdentity(item.identity)) return "it holds an identity this library does not write";
    }
    return std::string();
}

}  // namespace

void CKiteInstaller::RecordAction(const ActionRecord& record) {
    ScopeLog log("CKiteInstaller::RecordAction");
    log << "src = " << record.source << ", dst=" << ShownDestination(record)
        << ", action=" << static_cast<int>(record.action) << std::endl;
    journal_.push_back(record);
}

void CKiteInstaller::RecordComRegistration(const std::string& path, unsigned int reg,
                                           unsigned int serverType) {
    ScopeLog log("CKiteInstaller::RecordComRegistration");
    log << "src = " << path << ", reg=" << reg << ", server=" << serverType << std::endl;
    RecordAction(ActionRecord{path, "",
                              reg != 0 ? Action::ServerReplaced : Action::ServerRegistered,
                              static_cast<int>(serverType)});
}

HRESULT CKiteInstaller::Install(const char* manifestText) {
    ScopeLog log("CKiteInstaller::Install");
    HRESULT result = E_FAIL;
    // Nothing the manifest says is read before its signature is checked.
    const SignatureVerdict signature = CheckManifestSignature(log, manifestText);
    if (signature.status != S_OK) {
        log << "Return = " << std::hex << static_cast<unsigned long>(signature.status) << std::endl;
        return signature.status;
    }
    try {
        const ptree manifest = ParseManifest(manifestText);
        productFolder_ = manifest.get<std::string>("commands.appdir");
        ReportVersionFacts();
        const int admin = CheckIsUserAdmin();
        log << "Admin = " << admin << std::endl;
        if (admin == 0) {
            ReportError("No Admin access to install Kite in CKiteInstaller::Install");
            return E_ACCESSDENIED;
        }
        ReportInfo("Admin access to install Kite in CKiteInstaller::Install");
        const boost::optional<std::string> folderSupport =
            manifest.get_optional<std::string>("commands.enableCodeForKITEFolderSupport");
        if (folderSupport) {
            folderSupport_ = *folderSupport == "1";
            // Reported whenever the switch is present, whatever its text.
            TraceAndReport(
                log, "CKiteInstaller::Install code to support new folder structure is enabled",
                false);
        }
        if (const boost::optional<const ptree&> commands =
                manifest.get_child_optional("commands")) {
            const std::vector<PlannedCommand> planned = ReadCommands(*commands);
            result = SignedManifestRefusal(log, signature, *commands, planned, productFolder_);
            if (result == S_OK) result = Prepare(log, planned);
            if (result == S_OK) result = Transact(log);
        }
    } catch (...) {
        ReportError("Exceptions in CKiteInstaller::Install");
        Abort();
        result = E_FAIL;
    }
    log << "Return = " << std::hex << static_cast<unsigned long>(result) << std::endl;
    return result;
}

// Everything before the first change: the checks, the hold on the folder, the settling of what
// an earlier installation left, and what the plan needs to know.
HRESULT CKiteInstaller::Prepare(std::ostream& log, const std::vector<PlannedCommand>& commands) {
    const std::string reason = ProductFolderRefusal(productFolder_);
    if (!reason.empty()) return RefuseFolder(log, reason, E_FAIL);
    if (!hold_.Take(productFolder_)) {
        return RefuseFolder(log, "another installation of it is running", kFolderBusy);
    }
    HRESULT result = Refusal(log, commands);
    if (result == S_OK && _access(JournalPath(productFolder_).c_str(), 0) == 0) {
        CKiteInstaller interrupted;
        interrupted.SetProductFolder(productFolder_);
        const HRESULT recovered = interrupted.Recover();
        if (FAILED(recovered)) {
            result = RefuseFolder(log,
                                  "the journal of an interrupted installation cannot be settled, "
                                  "status " +
                                      HexStatus(recovered),
                                  E_FAIL);
        }
    }
    if (result == S_OK) result = SettlePendingRestores(log);
    if (result == S_OK) result = Survey(log);
    return result;
}

// The plan is on disk, flushed, before the first change; the placed files are durable before
// the commit mark; the commit mark is flushed before the first old file goes.
HRESULT CKiteInstaller::Transact(std::ostream& log) {
    std::vector<PlannedCommand> commands;
    std::vector<CommandFacts> facts;
    for (const CommandState& state : commands_) {
        commands.push_back(state.command);
        facts.push_back(state.facts);
    }
    plan_.items = PlanChanges(productFolder_, commands, facts, folderSupport_ ? 6 : 4);
    plan_.folderSupport = folderSupport_;
    if (!journalFile_.Begin(productFolder_, plan_)) {
        return RefuseFolder(log,
                            "its journal " + JournalPath(productFolder_) +
                                " cannot be written, GetLastError " +
                                std::to_string(::GetLastError()),
                            E_FAIL);
    }
    const bool ok = ArmMarker() && CopyFiles() && MakeDurable(log, true) && RegisterFiles() &&
                    journalFile_.MarkCommit();
    if (ok) {
        Commit();
        TraceAndReport(log, "CKiteInstaller::Install successful", false);
        return S_OK;
    }
    TraceAndReport(log, "CKiteInstaller::Install failed, proceeding for Abort ", true);
    Abort();
    return E_FAIL;
}

// Flushes the files written (the placed ones only on the way to a commit), closes them, and gives
// each backup copy its name. An undo keeps the backup copies made, as a commit does.
bool CKiteInstaller::MakeDurable(std::ostream& log, bool placedFiles) {
    std::vector<HANDLE> written;
    for (const CommandState& state : commands_) {
        if (placedFiles && state.placed) written.push_back(state.placed.get());
        if (state.backup) written.push_back(state.backup.get());
    }
    bool ok = FlushFiles(productFolder_, written);
    const DWORD error = ::GetLastError();
    for (CommandState& state : commands_) {
        state.placed.reset();
        if (!ok) continue;
        if (!KeepBackup(state)) {
            ReportError("KITE: Backup failed for " + FileNameOfPath(state.command.dst));
            ok = false;
        }
    }
    if (!ok) {
        TraceAndReport(log,
                       "KITE: CKiteInstaller::Install cannot make the files it wrote durable, "
                       "GetLastError " +
                           std::to_string(error),
                       true);
    }
    return ok;
}

// The marker goes last, after the journal file: until then a host that finds the commit cut
// short forces the fix, and the installation that follows finishes the commit first.
void CKiteInstaller::Commit() {
    ScopeLog log("CKiteInstaller::Commit");
    std::string marker;
    while (!journal_.empty()) {
        const ActionRecord& record = journal_.back();
        if (record.action == Action::RenamedAside) DeleteFile_S(record.destination);
        if (record.action == Action::MarkerArmed) marker = record.source;
        journal_.pop_back();
    }
    journalFile_.Finish();
    if (!marker.empty()) DeleteFile_S(marker);
}

void CKiteInstaller::Abort() {
    ScopeLog log("CKiteInstaller::Abort");
    for (CommandState& state : commands_) state.placed.reset();
    MakeDurable(log, false);
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
    }
    // A copy cut short by an exception leaves its temporary file.
    for (const CommandState& state : commands_) {
        const std::string temp = state.command.dst + kTempSuffix;
        if (Exists(temp)) Platform().DeleteFileA(temp.c_str());
    }
    journalFile_.Finish();
}

void CKiteInstaller::Undo(std::ostream& log, const ActionRecord& record) {
    switch (record.action) {
        case Action::RenamedAside:
            return UndoMoveAside(log, record);
        case Action::MarkerArmed:
            return UndoMarker(log, record.source);
        case Action::FilePlaced:
            for (auto it = journal_.rbegin(); it != journal_.rend(); ++it) {
                if (it->action == Action::RenamedAside && it->source == record.source) {
                    return UndoPlacedFile(record.source, it->destination);
                }
            }
            return UndoPlacedFile(record.source, "");
        case Action::ServerReplaced:
        case Action::ServerRegistered:
            RegisterServer(record.source, record.action == Action::ServerReplaced ? 1 : 0,
                           record.serverType, folderSupport_);
            return;
    }
}

HRESULT CKiteInstaller::Recover() {
    ScopeLog log("RecoverKite");
    const std::string folderRefusal = ProductFolderRefusal(productFolder_);
    if (!folderRefusal.empty()) {
        log << "Refused: " << folderRefusal << ". Return = 80070057" << std::endl;
        return E_INVALIDARG;
    }
    if (!hold_.Take(productFolder_)) {
        log << "Another installation of " << productFolder_
            << " is running; nothing is touched. Return = 800700aa" << std::endl;
        return kFolderBusy;
    }
    return RecoverHeld(log);
}

HRESULT CKiteInstaller::RecoverHeld(std::ostream& log) {
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
            log << "Journal cannot be read. Return = " << HexStatus(failed) << std::endl;
            return failed;
        }
        if (!OwnedByAdministrators(file.get())) {
            log << "Journal is owned by another account; nothing is touched. Return = "
                   "80070005"
                << std::endl;
            return E_ACCESSDENIED;
        }
    }
    const InstallPlan plan = ReadJournalText(text);
    const std::string refusal = JournalRefusal(productFolder_, plan);
    if (!refusal.empty()) {
        log << "Journal is not to be trusted, " << refusal
            << "; nothing is touched. Return = 8007000d" << std::endl;
        return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    }
    journalFile_.Adopt(productFolder_, plan.createdFolder);
    if (!plan.complete) {
        // Cut short while the plan was written: no change was made.
        journalFile_.Finish();
        log << "Return = 0" << std::endl;
        return 0;
    }
    log << "Planned changes: " << plan.items.size() << (plan.committing ? ", commit begun" : "")
        << std::endl;
    folderSupport_ = plan.folderSupport;
    for (auto it = plan.items.rbegin(); it != plan.items.rend(); ++it) {
        try {
            Recover(log, *it, plan.committing);
        } catch (const std::exception& error) {
            log << "Recovery of " << it->target << " failed: " << error.what() << std::endl;
        }
    }
    journalFile_.Finish();
    const HRESULT result = plan.committing ? 2 : 1;
    if (plan.committing) {
        DeleteFile_S(MarkerPath(productFolder_));
        ReportError("KITE: RecoverKite finished the commit of an interrupted installation in " +
                    productFolder_);
    } else {
        ReportError("KITE: RecoverKite undid an interrupted installation in " + productFolder_);
    }
    log << "Return = " << result << std::endl;
    return result;
}

// Each step reads from the disk how far its change got, and can be repeated safely: a recovery
// that is itself cut short is finished by the next one.
void CKiteInstaller::Recover(std::ostream& log, const WorkItem& item, bool committing) {
    switch (item.change) {
        case Change::Marker:
            if (!committing) UndoMarker(log, item.target);
            return;
        case Change::Backup:
            return RecoverBackup(item, committing);
        case Change::Aside:
            return RecoverAside(log, item, committing);
        case Change::Place:
            return RecoverPlacedFile(item, committing);
        case Change::Register:
            return RecoverRegistration(item, committing);
    }
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

// Each export that reports waits (boundedly) for its events, so that a host that looks at the
// collector after the call sees them.
extern "C" HRESULT RecoverKite(const char* productFolder) {
    const kite::FlushOnReturn flush;
    try {
        if (productFolder == nullptr) {
            kite::ScopeLog log("RecoverKite");
            log << "Invalid argument: product folder is null" << std::endl;
            return E_INVALIDARG;
        }
        kite::CKiteInstaller installer;
        installer.SetProductFolder(productFolder);
        return installer.Recover();
    } catch (...) {
        return E_FAIL;
    }
}

extern "C" HRESULT InstallKite(const char* manifest) {
    const kite::FlushOnReturn flush;
    try {
        kite::CKiteInstaller installer;
        return installer.Install(manifest);
    } catch (...) {
        return E_FAIL;
    }
}
