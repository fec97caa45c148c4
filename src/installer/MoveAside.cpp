// Moving an installed file aside: it waits under a GUID name in its own folder until the commit
// deletes it or an undo renames it back, so that no copy ever overwrites a file an undo needs and
// a running program keeps its image.
#include "installer/KiteInstaller.h"

#include "common/Platform.h"
#include "installer/Events.h"
#include "registration/ComServer.h"

#include <io.h>

namespace kite {

namespace {

bool Exists(const std::string& path) { return _access(path.c_str(), 0) == 0; }

}  // namespace

bool FailedBeforeCopy(std::ostream& log, const std::string& dst) {
    TraceAndReport(log,
                   "KITE: CKiteInstaller::CopyFiles: Something went wrong before invoking  "
                   "CopyFile_S for file " +
                       dst,
                   true);
    return false;
}

// The GUID name was chosen when the installation was planned.
bool CKiteInstaller::MoveAside(std::ostream& log, const CommandState& state,
                               std::string& replacedName) {
    const std::string& dst = state.command.dst;
    const std::string& aside = state.facts.aside;
    if (aside.empty()) {
        ReportError("KITE: CKiteInstaller:CopyFiles CoCreateGuid Failed to create GUID for File " +
                    dst);
        return FailedBeforeCopy(log, dst);
    }
    replacedName = dst.substr(dst.rfind('\\'));
    log << "Rename: " << dst << " => " << aside;
    const BOOL moved = Platform().MoveFileA(dst.c_str(), aside.c_str());
    const DWORD error = ::GetLastError();
    log << ", Return = " << moved << std::endl;
    if (!moved) {
        ReportError("KITE: CKiteInstaller:CopyFiles MoveFile failed for file " + dst +
                    " for szBkp " + aside + " with GetLastError: " + std::to_string(error));
        return FailedBeforeCopy(log, dst);
    }
    // A registered server renamed aside is registered again if the installation is undone.
    const int type = state.command.serverType;
    if (type > 0) RecordComRegistration(dst, 1, static_cast<unsigned int>(type));
    RecordAction(ActionRecord{dst, aside, Action::RenamedAside, 0});
    return true;
}

// A renamed-aside file that has vanished is skipped.
void CKiteInstaller::UndoMoveAside(std::ostream& log, const ActionRecord& record) {
    if (!Exists(record.destination)) return;
    log << "Rename: " << record.destination << " => " << record.source;
    const BOOL moved = Platform().MoveFileA(record.destination.c_str(), record.source.c_str());
    log << " ret = " << moved << std::endl;
}

// Before the commit mark the old file goes back (the placed one was deleted first, newest
// first) and a replaced server is registered again; after it, the old file goes.
void CKiteInstaller::RecoverAside(std::ostream& log, const WorkItem& item, bool committing) {
    if (committing) return DeleteFile_S(item.aside);
    if (!Exists(item.aside)) return;
    UndoMoveAside(log, ActionRecord{item.target, item.aside, Action::RenamedAside, 0});
    if (item.serverType > 0) RegisterServer(item.target, 1, item.serverType, folderSupport_);
}

}  // namespace kite
