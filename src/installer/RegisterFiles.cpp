// Registering the placed component servers, each recorded once registered so that an undo
// unregisters it before the file is deleted.
#include "installer/KiteInstaller.h"

#include "installer/Events.h"
#include "log/ScopeLog.h"
#include "registration/ComServer.h"

#include <io.h>

namespace kite {

bool CKiteInstaller::RegisterFiles() {
    ScopeLog log("CKiteInstaller::RegisterFiles");
    const int highestType = folderSupport_ ? 6 : 4;
    bool ok = true;
    std::string failed;
    for (const CommandState& state : commands_) {
        const std::string& dst = state.command.dst;
        const int type = state.command.serverType;
        if (_access(dst.c_str(), 0) != 0 || type < 1 || type > highestType) continue;
        if (RegisterServer(dst, 1, type, folderSupport_) != S_OK) {
            ok = false;
            failed = dst;
            break;
        }
        RecordComRegistration(dst, 0, static_cast<unsigned int>(type));
    }
    if (!ok) {
        // The line carries the success flag; RegisterServer has already logged the HRESULT.
        TraceAndReport(
            log, "CKiteInstaller::RegisterFiles Failed to register server for : " + failed + " 0",
            true);
    }
    TraceAndReport(log, "CKiteInstaller::RegisterFiles Return: " + std::to_string(ok ? 1 : 0),
                   false);
    return ok;
}

// Before the commit mark a server is unregistered while the file placed is still there (the
// registration may or may not have run); the undo of its file comes next.
void CKiteInstaller::RecoverRegistration(const WorkItem& item, bool committing) {
    if (committing || item.identity.empty() || FileIdentity(item.target) != item.identity) return;
    RegisterServer(item.target, 0, item.serverType, folderSupport_);
}

}  // namespace kite
