#include "installer/KiteInstaller.h"

#include "installer/Events.h"
#include "log/ScopeLog.h"
#include "registration/ComServer.h"

#include <io.h>

namespace kite {

bool CKiteInstaller::RegisterFiles(const Plan& plan) {
    ScopeLog log("CKiteInstaller::RegisterFiles");
    const int highestType = folderSupport_ ? 6 : 4;
    bool ok = true;
    std::string failed;
    for (const PlannedCommand& command : plan) {
        const int type = command.serverType;
        if (_access(command.dst.c_str(), 0) != 0 || type < 1 || type > highestType) continue;
        JournaledChange change(*this,
                               {ActionRecord{command.dst, "", Action::UnregisterAgain, type, ""}});
        if (!change.announced() || RegisterServer(command.dst, 1, type, folderSupport_) != S_OK) {
            ok = false;
            failed = command.dst;
            break;
        }
        change.Made(0);
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

}  // namespace kite
