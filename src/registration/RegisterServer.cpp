#include "log/ScopeLog.h"
#include "registration/ComServer.h"

namespace kite {

HRESULT RegisterServer(const std::string& path, int reg, int serverType, bool folderSupport) {
    ScopeLog log("RegisterServer");
    log << "File: " << path << " Register: " << reg << "ServerType: " << serverType << std::endl;
    if (serverType < 1) return S_OK;
    // An unmappable type or file throws through to the installation's handler, which undoes it.
    HRESULT hr = E_FAIL;
    {
        const std::unique_ptr<IComServer> server =
            CreateComServer(path, static_cast<unsigned int>(serverType), folderSupport);
        hr = reg != 0 ? server->Register() : server->Unregister();
    }
    log << "HRESULT = " << std::hex << static_cast<unsigned long>(hr) << std::endl;
    return hr;
}

}  // namespace kite
