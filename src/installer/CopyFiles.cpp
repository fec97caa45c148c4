#include "installer/KiteInstaller.h"

#include "common/BoundedFormat.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "exports/Helpers.h"
#include "installer/Events.h"
#include "log/ScopeLog.h"

#include <objbase.h>
#include <io.h>

#include <vector>

namespace kite {

namespace {

constexpr int kCopyRetries = 3;
// An event body has room for 1,699 bytes, and a longer one ends the host; the list of copied
// files stops growing at this length so that a package of any size can report it.
constexpr std::size_t kCopiedTextLimit = 1000;
constexpr DWORD kCopyRetryWaitMs = 1000;

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

// Moves an existing destination aside under a GUID name in its own folder, so that the copy
// never overwrites a file that an undo would need and a running program can keep its image.
bool RenameAside(CKiteInstaller& installer, ScopeLog& log, const std::string& dst, int serverType,
                 std::string& rememberedName) {
    const std::string::size_type slash = dst.rfind('\\');
    if (dst.empty() || slash == std::string::npos) {
        ReportError("KITE: CKiteInstaller:CopyFiles:rfind MoveFile failed for file " + dst);
        return false;
    }
    const std::string guid = NewGuidText();
    if (guid.empty()) {
        ReportError("KITE: CKiteInstaller:CopyFiles CoCreateGuid Failed to create GUID for File " +
                    dst);
        return false;
    }
    rememberedName = dst.substr(slash);
    char aside[260];
    FormatBounded(aside, "%s\\%s", dst.substr(0, slash).c_str(), guid.c_str());
    const ActionRecord reregister{dst, std::to_string(serverType), kRegisterAgain};
    const ActionRecord renamed{dst, aside, kRenamedAside};
    const ActionRecord placed{dst, "", kFilePlaced};
    std::vector<ActionRecord> announced;
    if (serverType > 0) announced.push_back(reregister);
    announced.push_back(renamed);
    announced.push_back(placed);
    installer.durable.Intend(announced);
    log << "Rename: " << dst << " => " << aside;
    const BOOL moved = Platform().MoveFileA(dst.c_str(), aside);
    const DWORD error = ::GetLastError();
    log << ", Return = " << moved << std::endl;
    if (!moved) {
        installer.durable.Settled(placed);
        installer.durable.Settled(renamed);
        if (serverType > 0) installer.durable.Settled(reregister);
        ReportError("KITE: CKiteInstaller:CopyFiles MoveFile failed for file " + dst +
                    " for szBkp " + aside + " with GetLastError: " + std::to_string(error));
        return false;
    }
    if (serverType > 0) {
        installer.RecordComRegistration(dst, 1, static_cast<unsigned int>(serverType));
    }
    installer.RecordAction(dst, aside, kRenamedAside);
    return true;
}

// Up to four copy calls, the last three each after a wait: a file still held open by a closing
// program is often released within seconds. A file that replaces another had its copy announced
// in the journal with the rename aside.
int CopyWithRetries(CKiteInstaller& installer, ScopeLog& log, const std::string& src,
                    const std::string& dst, bool announced) {
    const ActionRecord placed{dst, "", kFilePlaced};
    if (!announced) installer.durable.Intend(placed);
    if (installer.CopyFile_S(src, dst)) {
        installer.RecordAction(dst, "", kFilePlaced);
        return 1;
    }
    for (int attempt = 1; attempt <= kCopyRetries; ++attempt) {
        Platform().Sleep(kCopyRetryWaitMs);
        if (installer.CopyFile_S(src, dst)) {
            installer.RecordAction(dst, "", kFilePlaced);
            log << "CopyFile_s for file " << src << " to destination " << dst
                << "passed in attempt  " << attempt << std::endl;
            ReportInfo("KITE: CopyFile_S passed in attempt number " + std::to_string(attempt));
            return 1;
        }
        log << "CopyFile_s for file " << src << " to destination " << dst << "failed in attempt  "
            << attempt << std::endl;
    }
    installer.durable.Settled(placed);
    ReportError("KITE: CopyFile_S failed for all the 3 attempts.");
    return 0;
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

int CKiteInstaller::CopyFiles(const ptree& commands) {
    ScopeLog log("CKiteInstaller::CopyFiles");
    std::string copied = "KITE: CKiteInstaller::CopyFiles copied these files";
    std::string rememberedName;
    bool copiedFull = false;
    log << "CKiteInstaller::CopyFiles Src = " << productFolder_ << std::endl;

    int backupFlag = 1;
    DWORD major = 0;
    DWORD release = 0;
    if (GetModuleVersion(ProductExecutable().c_str(), major, release) == S_OK) {
        backupFlag = TakeBackup(major, release);
    }

    int result = 1;
    for (const ptree::value_type& child : commands) {
        if (!IsCommand(child)) continue;
        const ManifestCommand command = ReadCommand(child.second);
        log << "CopyFile: Src=" << command.src << ", dst=" << command.dst
            << ", server=" << command.serverType << std::endl;
        bool ok = BackupFile(command.dst, backupFlag) != 0;
        const bool replaces = ok && Exists(command.dst);
        if (ok && !replaces) {
            ReportInfo("KITE: CKiteInstaller::CopyFiles:FileExists File does not exist " +
                       command.dst);
        } else if (ok &&
                   !RenameAside(*this, log, command.dst, command.serverType, rememberedName)) {
            const std::string text =
                "KITE: CKiteInstaller::CopyFiles: Something went wrong before invoking  "
                "CopyFile_S for file " +
                command.dst;
            TraceAndReport(log, text, true);
            ok = false;
        }
        if (ok) ok = CopyWithRetries(*this, log, command.src, command.dst, replaces) != 0;
        if (!ok) {
            const std::string text =
                "KITE: CKiteInstaller::CopyFiles: Failed to take back up of file " + command.dst;
            TraceAndReport(log, text, true);
            result = 0;
            break;
        }
        // The name of the latest file renamed aside, not of the file just copied: the text is a
        // diagnostic of what was replaced.
        AppendCopiedName(copied, copiedFull, rememberedName);
    }

    copied += result ? " Success" : " Failure";
    (result ? ReportInfo : ReportError)(copied);
    TraceAndReport(log, "CKiteInstaller::CopyFiles Return: " + std::to_string(result), result == 0);
    return result;
}

int CKiteInstaller::CopyFile_S(const std::string& source, const std::string& destination) {
    ScopeLog log("CopyFile_S");
    log << "CopyFile_S: " << source << " => " << destination << std::endl;
    int result = 0;
    if (!Exists(source)) {
        log << "Error: " << source << " doesn't exist" << std::endl;
        ReportError("KITE: CopyFile_S failed at CUtils::FileExists: " + FileNameOfPath(source));
        return 0;
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
    return result;
}

}  // namespace kite
