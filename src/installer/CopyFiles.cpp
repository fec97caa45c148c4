// Placing the package's files: for each command the installed file is backed up and moved aside,
// then the new one is copied from the source that was checked and held since, into a temporary
// name in the destination folder, and renamed into place. A kill or a power cut thus leaves the
// old file or the whole new one under the product's name, never a cut copy.
#include "installer/KiteInstaller.h"

#include "common/Platform.h"
#include "common/Text.h"
#include "exports/Helpers.h"
#include "installer/Events.h"
#include "installer/Verify.h"
#include "log/ScopeLog.h"

#include <io.h>

namespace kite {

namespace {

constexpr int kCopyRetries = 3;
constexpr DWORD kCopyRetryWaitMs = 1000;
// One buffer for every copy of an installation: allocating it afresh per file costs more than
// copying a small file.
constexpr DWORD kCopyBufferBytes = 1 << 20;
// The list of copied files stops growing at this length so that a package of any size can
// report it in one event.
constexpr std::size_t kCopiedTextLimit = 1000;

bool Exists(const std::string& path) { return _access(path.c_str(), 0) == 0; }

// Appends a name unless the text would outgrow one event; then " ..." ends the list, once.
void AppendCopiedName(std::string& copied, bool& full, const std::string& name) {
    if (full) return;
    if (copied.size() + name.size() > kCopiedTextLimit) {
        copied += " ...";
        full = true;
        return;
    }
    copied += name;
}

std::string IdentityOf(unsigned long long size, const FILETIME& written) {
    return std::to_string(size) + ":" +
           std::to_string((static_cast<unsigned long long>(written.dwHighDateTime) << 32) |
                          written.dwLowDateTime);
}

// A new file is still the one placed while it has the write time the copy gave it: the time was
// set before the file took its name, so it holds after a power cut even where the bytes were
// lost, and a repair of the product puts its files there with their own times.
bool PlacedHere(const WorkItem& item) {
    const std::string now = FileIdentity(item.target);
    const std::string::size_type colon = item.identity.find(':');
    return !now.empty() && colon != std::string::npos &&
           now.substr(now.find(':')) == item.identity.substr(colon);
}

}  // namespace

std::string FileIdentity(const std::string& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!::GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) return std::string();
    return IdentityOf(
        (static_cast<unsigned long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow,
        data.ftLastWriteTime);
}

// Size and time alone: the whole BY_HANDLE_FILE_INFORMATION makes Wine ask the volume for its
// serial number, a hundred times as costly.
std::string FileIdentity(HANDLE file) {
    LARGE_INTEGER size;
    FILETIME written;
    if (!::GetFileSizeEx(file, &size) || !::GetFileTime(file, nullptr, nullptr, &written)) {
        return std::string();
    }
    return IdentityOf(static_cast<unsigned long long>(size.QuadPart), written);
}

std::string CKiteInstaller::ProductExecutable() const {
    const std::string program = productFolder_ + "\\tww.exe";
    return Exists(program) ? program : productFolder_ + "\\tww32.exe";
}

bool CKiteInstaller::CopyFiles() {
    ScopeLog log("CKiteInstaller::CopyFiles");
    std::string copied = "KITE: CKiteInstaller::CopyFiles copied these files";
    std::string replacedName;
    bool copiedFull = false;
    log << "CKiteInstaller::CopyFiles Src = " << productFolder_ << std::endl;

    int backupFlag = 1;
    DWORD major = 0;
    DWORD release = 0;
    if (GetModuleVersion(ProductExecutable().c_str(), major, release) == S_OK) {
        backupFlag = TakeBackup(major, release);
    }

    bool result = true;
    for (CommandState& state : commands_) {
        const PlannedCommand& command = state.command;
        log << "CopyFile: Src=" << command.src << ", dst=" << command.dst
            << ", server=" << command.serverType << std::endl;
        bool ok = BackupFile(state, backupFlag);
        if (ok && state.facts.exists) {
            ok = MoveAside(log, state, replacedName) && CopyWithRetries(log, state);
        } else if (ok) {
            ReportInfo("KITE: CKiteInstaller::CopyFiles:FileExists File does not exist " +
                       command.dst);
            ok = CopyWithRetries(log, state);
        }
        if (!ok) {
            TraceAndReport(
                log,
                "KITE: CKiteInstaller::CopyFiles: Failed to take back up of file " + command.dst,
                true);
            result = false;
            break;
        }
        // The name of the latest file renamed aside, not of the file just copied: the text is a
        // diagnostic of what was replaced.
        AppendCopiedName(copied, copiedFull, replacedName);
    }

    copied += result ? " Success" : " Failure";
    (result ? ReportInfo : ReportError)(copied);
    TraceAndReport(log, "CKiteInstaller::CopyFiles Return: " + std::to_string(result ? 1 : 0),
                   !result);
    return result;
}

// Up to four copy calls, the last three each after a wait: a file still held open by a closing
// program is often released within seconds. The placed file is recorded right after its copy.
bool CKiteInstaller::CopyWithRetries(std::ostream& log, CommandState& state) {
    const std::string& src = state.command.src;
    const std::string& dst = state.command.dst;
    // A source missing at the check has no handle: it is looked for again at each attempt.
    const CopyJob job{state.source ? state.source.get() : nullptr, dst + kTempSuffix, true,
                      state.placed, !state.facts.exists};
    for (int attempt = 0; attempt <= kCopyRetries; ++attempt) {
        if (attempt > 0) Platform().Sleep(kCopyRetryWaitMs);
        if (CopyFile_S(src, dst, job)) {
            RecordAction(ActionRecord{dst, "", Action::FilePlaced, 0});
            if (attempt == 0) return true;
            log << "CopyFile_s for file " << src << " to destination " << dst
                << "passed in attempt  " << attempt << std::endl;
            ReportInfo("KITE: CopyFile_S passed in attempt number " + std::to_string(attempt));
            return true;
        }
        if (attempt == 0) continue;
        log << "CopyFile_s for file " << src << " to destination " << dst << "failed in attempt  "
            << attempt << std::endl;
    }
    ReportError("KITE: CopyFile_S failed for all the 3 attempts.");
    return false;
}

bool CKiteInstaller::CopyFile_S(const std::string& source, const std::string& destination,
                                const CopyJob& job) {
    ScopeLog log("CopyFile_S");
    log << "CopyFile_S: " << source << " => " << destination << std::endl;
    bool result = false;
    // A held source cannot go away; any other is looked for first.
    if (job.from == nullptr && !Exists(source)) {
        log << "Error: " << source << " doesn't exist" << std::endl;
        ReportError("KITE: CopyFile_S failed at CUtils::FileExists: " + FileNameOfPath(source));
        return false;
    }
    const std::string::size_type slash = destination.rfind('\\');
    const std::string folder = destination.substr(0, slash == std::string::npos ? 0 : slash);
    const int created =
        job.makeFolder && slash != std::string::npos
            ? Platform().SHCreateDirectory(nullptr, WidenText(folder, CP_THREAD_ACP).c_str())
            : ERROR_SUCCESS;
    if (slash == std::string::npos) {
        log << "Error: Invalid path. " << destination << std::endl;
    } else if (created == ERROR_SUCCESS || created == ERROR_FILE_EXISTS ||
               created == ERROR_ALREADY_EXISTS) {
        result = CopyThroughTemp(source, destination, job);
        if (!result) {
            const DWORD error = ::GetLastError();
            log << "CopyFile failed with GetLastError " << error << std::endl;
            ReportError("KITE: CopyFile failed for " + FileNameOfPath(source) +
                        " with GetLastError: " + std::to_string(error));
        }
    } else {
        log << "SHCreateDirectory() failed. Ret = " << created << std::endl;
        ReportError("KITE: SHCreateDirectory() failed for Destination Directory: " + folder);
    }
    log << "CopyFile_S return = " << (result ? 1 : 0) << std::endl;
    return result;
}

// Writes the source's bytes under the job's temporary name, with the source's write time, and
// moves them into place when the job says so. The written file stays open for the flush that
// makes it durable before the commit. False with the platform's error when any step fails; the
// temporary file is then gone.
bool CKiteInstaller::CopyThroughTemp(const std::string& source, const std::string& destination,
                                     const CopyJob& job) {
    UniqueHandle opened;
    HANDLE from = job.from;
    if (from == nullptr) {
        // A placed file's source not held since the check (it was missing then) is opened as
        // the check opens it; a backup's source is the installed file, which others may hold.
        opened.reset(job.placeIt ? OpenSource(source)
                                 : ::CreateFileA(
                                       source.c_str(), GENERIC_READ,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                       nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
        if (!opened) return false;
        from = opened.get();
    }
    if (!copyBuffer_) copyBuffer_.reset(new char[kCopyBufferBytes]);
    UniqueHandle out(Platform().CreateFileA(job.temp.c_str(), GENERIC_WRITE,
                                            FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                            CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    LARGE_INTEGER start = {};
    bool ok = out.valid() && ::SetFilePointerEx(from, start, nullptr, FILE_BEGIN);
    for (DWORD read = 1; ok && read > 0;) {
        DWORD written = 0;
        ok = ::ReadFile(from, copyBuffer_.get(), kCopyBufferBytes, &read, nullptr) &&
             (read == 0 ||
              (Platform().WriteFile(out.get(), copyBuffer_.get(), read, &written, nullptr) &&
               written == read));
    }
    FILETIME created, accessed, modified;
    ok = ok && ::GetFileTime(from, &created, &accessed, &modified) &&
         ::SetFileTime(out.get(), nullptr, nullptr, &modified) &&
         (!job.placeIt || Platform().MoveFileExA(job.temp.c_str(), destination.c_str(), 0));
    if (ok) {
        job.written = std::move(out);
        return true;
    }
    const DWORD error = ::GetLastError();
    if (out) {
        out.reset();
        Platform().DeleteFileA(job.temp.c_str());
    }
    ::SetLastError(error);
    return false;
}

// Deletes the file this installation placed. One held open cannot be deleted now; a delete at
// restart would also take the file of a forced installation made before the restart, so the old
// file is put back over it at restart instead, as Windows Installer does.
void CKiteInstaller::UndoPlacedFile(const std::string& path, const std::string& aside) {
    if (!Exists(path)) return;
    ScopeLog log("CKiteInstaller::DeleteFile_S");
    log << "Deleting " << path;
    if (Platform().DeleteFileA(path.c_str())) {
        log << " - Success." << std::endl;
        return;
    }
    if (!aside.empty() && Exists(aside)) {
        log << " - Failed. " << aside << " will replace it upon system reboot." << std::endl;
        Platform().MoveFileExA(aside.c_str(), path.c_str(),
                               MOVEFILE_DELAY_UNTIL_REBOOT | MOVEFILE_REPLACE_EXISTING);
        return;
    }
    log << " - Failed. The file stays until the fix is applied again." << std::endl;
}

// The temporary file goes. Before the commit mark the placed file goes too while it is there:
// when the old file waits aside, whatever stands under its name; for a new file, only the file
// placed, so that a journal older than a repair of the product deletes nothing the repair put
// there.
void CKiteInstaller::RecoverPlacedFile(const WorkItem& item, bool committing) {
    if (Exists(item.temp)) Platform().DeleteFileA(item.temp.c_str());
    if (committing) return;
    if (item.aside.empty() ? PlacedHere(item) : Exists(item.aside)) {
        UndoPlacedFile(item.target, item.aside);
    }
}

}  // namespace kite
