#include "installer/KiteInstaller.h"

#include "common/BoundedFormat.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "exports/Helpers.h"
#include "installer/Events.h"
#include "log/ScopeLog.h"

#include <objbase.h>
#include <io.h>

namespace kite {

namespace {

constexpr int kCopyRetries = 3;
constexpr DWORD kCopyRetryWaitMs = 1000;
// The list of copied files stops growing at this length so that a package of any size can
// report it in one event.
constexpr std::size_t kCopiedTextLimit = 1000;

bool Exists(const std::string& path) { return _access(path.c_str(), 0) == 0; }

// A new GUID in its registry form ({...}, 38 characters) as ANSI text; empty when none was made.
std::string NewGuidText() {
    GUID guid;
    if (FAILED(Platform().CoCreateGuid(&guid))) return std::string();
    wchar_t wide[260] = {};
    ::StringFromGUID2(guid, wide, 260);
    char narrow[260] = {};
    ::WideCharToMultiByte(CP_THREAD_ACP, 0, wide, -1, narrow, sizeof narrow, nullptr, nullptr);
    return narrow;
}

// The record of a file about to be placed carries its source's size and write time, which the
// copy keeps: recovery deletes only the file this installation put there.
ActionRecord PlacedRecord(const PlannedCommand& command) {
    return ActionRecord{command.dst, "", Action::FilePlaced, 0, FileIdentity(command.src)};
}

bool SomethingWentWrong(std::ostream& log, const std::string& dst) {
    TraceAndReport(log,
                   "KITE: CKiteInstaller::CopyFiles: Something went wrong before invoking  "
                   "CopyFile_S for file " +
                       dst,
                   true);
    return false;
}

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

}  // namespace

std::string CKiteInstaller::ProductExecutable() const {
    const std::string program = productFolder_ + "\\tww.exe";
    return Exists(program) ? program : productFolder_ + "\\tww32.exe";
}

// Up to four copy calls, the last three each after a wait: a file still held open by a closing
// program is often released within seconds. The placed file is recorded right after its copy.
bool CKiteInstaller::CopyWithRetries(std::ostream& log, const PlannedCommand& command,
                                     JournaledChange& change, std::size_t placed) {
    const std::string& src = command.src;
    const std::string& dst = command.dst;
    if (CopyFile_S(src, dst)) {
        change.Made(placed);
        return true;
    }
    for (int attempt = 1; attempt <= kCopyRetries; ++attempt) {
        Platform().Sleep(kCopyRetryWaitMs);
        if (CopyFile_S(src, dst)) {
            change.Made(placed);
            log << "CopyFile_s for file " << src << " to destination " << dst
                << "passed in attempt  " << attempt << std::endl;
            ReportInfo("KITE: CopyFile_S passed in attempt number " + std::to_string(attempt));
            return true;
        }
        log << "CopyFile_s for file " << src << " to destination " << dst << "failed in attempt  "
            << attempt << std::endl;
    }
    ReportError("KITE: CopyFile_S failed for all the 3 attempts.");
    return false;
}

// Moves the installed file aside under a GUID name in its own folder, so that the copy never
// overwrites a file that an undo would need and a running program can keep its image; then
// copies the new one. Rename and copy are announced in one journal write.
bool CKiteInstaller::ReplaceFile(std::ostream& log, const PlannedCommand& command,
                                 std::string& replacedName) {
    const std::string& dst = command.dst;
    const std::string guid = NewGuidText();
    if (guid.empty()) {
        ReportError("KITE: CKiteInstaller:CopyFiles CoCreateGuid Failed to create GUID for File " +
                    dst);
        return SomethingWentWrong(log, dst);
    }
    const std::string::size_type slash = dst.rfind('\\');
    replacedName = dst.substr(slash);
    char aside[260];
    FormatBounded(aside, "%s\\%s", dst.substr(0, slash).c_str(), guid.c_str());
    std::vector<ActionRecord> records;
    if (command.serverType > 0) {
        records.push_back(ActionRecord{dst, "", Action::RegisterAgain, command.serverType, ""});
    }
    records.push_back(ActionRecord{dst, aside, Action::RenamedAside, 0, ""});
    records.push_back(PlacedRecord(command));
    JournaledChange change(*this, records);
    if (!change.announced()) return SomethingWentWrong(log, dst);
    log << "Rename: " << dst << " => " << aside;
    const BOOL moved = Platform().MoveFileA(dst.c_str(), aside);
    const DWORD error = ::GetLastError();
    log << ", Return = " << moved << std::endl;
    if (!moved) {
        ReportError("KITE: CKiteInstaller:CopyFiles MoveFile failed for file " + dst +
                    " for szBkp " + aside + " with GetLastError: " + std::to_string(error));
        return SomethingWentWrong(log, dst);
    }
    for (std::size_t i = 0; i + 1 < records.size(); ++i) change.Made(i);
    return CopyWithRetries(log, command, change, records.size() - 1);
}

bool CKiteInstaller::CopyFiles(const Plan& plan) {
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
    for (const PlannedCommand& command : plan) {
        log << "CopyFile: Src=" << command.src << ", dst=" << command.dst
            << ", server=" << command.serverType << std::endl;
        bool ok = BackupFile(command.dst, backupFlag);
        if (ok && Exists(command.dst)) {
            ok = ReplaceFile(log, command, replacedName);
        } else if (ok) {
            ReportInfo("KITE: CKiteInstaller::CopyFiles:FileExists File does not exist " +
                       command.dst);
            JournaledChange change(*this, {PlacedRecord(command)});
            ok = change.announced() && CopyWithRetries(log, command, change, 0);
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

bool CKiteInstaller::CopyFile_S(const std::string& source, const std::string& destination) {
    ScopeLog log("CopyFile_S");
    log << "CopyFile_S: " << source << " => " << destination << std::endl;
    BOOL result = FALSE;
    if (!Exists(source)) {
        log << "Error: " << source << " doesn't exist" << std::endl;
        ReportError("KITE: CopyFile_S failed at CUtils::FileExists: " + FileNameOfPath(source));
        return false;
    }
    const std::string::size_type slash = destination.rfind('\\');
    if (slash == std::string::npos) {
        log << "Error: Invalid path. " << destination << std::endl;
    } else {
        const std::string folder = destination.substr(0, slash);
        const std::wstring wideFolder = WidenText(folder, CP_THREAD_ACP);
        const int created = Platform().SHCreateDirectory(nullptr, wideFolder.c_str());
        if (created == ERROR_SUCCESS || created == ERROR_FILE_EXISTS ||
            created == ERROR_ALREADY_EXISTS) {
            result = Platform().CopyFileA(source.c_str(), destination.c_str(), FALSE);
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
    }
    log << "CopyFile_S return = " << result << std::endl;
    return result != FALSE;
}

}  // namespace kite
