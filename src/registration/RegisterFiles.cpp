#include "installer/KiteInstaller.h"

#include "installer/Events.h"
#include "log/ScopeLog.h"
#include "registration/ComServer.h"

#include <io.h>

namespace kite {

int CKiteInstaller::RegisterFiles(const ptree& commands) {
    ScopeLog log("CKiteInstaller::RegisterFiles");
    const int highestType = folderSupport_ ? 6 : 4;
    int ok = 1;
    std::string failed;
    for (const ptree::value_type& child : commands) {
        if (!IsCommand(child)) continue;
        const std::string dst = child.second.get<std::string>("dst");
        const int serverType = child.second.get<int>("register");
        if (_access(dst.c_str(), 0) != 0 || serverType < 1 || serverType > highestType) continue;
        const ActionRecord registered{dst, std::to_string(serverType), kUnregisterAgain};
        durable.Intend(registered);
        if (kite::RegisterServer(dst, 1, serverType, folderSupport_) != S_OK) {
            durable.Settled(registered);
            ok = 0;
            failed = dst;
            break;
        }
        RecordComRegistration(dst, 0, static_cast<unsigned int>(serverType));
    }
    if (ok == 0) {
        // The line carries the success flag; RegisterServer has already logged the HRESULT.
        const std::string text =
            "CKiteInstaller::RegisterFiles Failed to register server for : " + failed + " " +
            std::to_string(ok);
        TraceAndReport(log, text, true);
    }
    TraceAndReport(log, "CKiteInstaller::RegisterFiles Return: " + std::to_string(ok), false);
    return ok;
}

// The rollback's way in; the work is the registration room's.
HRESULT CKiteInstaller::RegisterServer(const std::string& path, int reg, int serverType) {
    return kite::RegisterServer(path, reg, serverType, folderSupport_);
}

}  // namespace kite
