#include "registration/ComServer.h"

#include "common/Text.h"
#include "log/ScopeLog.h"
#include "registration/ClrHosting.h"

#include <mbstring.h>

#include <stdexcept>

namespace kite {

namespace {

// The text after the path's last dot, which may lie in a folder name ("C:\a.b\file" gives
// "b\file"); nullptr when there is no dot.
const char* ExtensionOf(const std::string& path) {
    const std::string::size_type dot = path.rfind('.');
    return dot == std::string::npos ? nullptr : path.c_str() + dot + 1;
}

// Compared as the system code page's multibyte text, ignoring case.
bool ExtensionIs(const char* extension, const char* expected) {
    return _mbsicmp(reinterpret_cast<const unsigned char*>(extension),
                    reinterpret_cast<const unsigned char*>(expected)) == 0;
}

}  // namespace

std::unique_ptr<IComServer> DetectComServer(const std::string& path, unsigned int serverType) {
    const char* extension = ExtensionOf(path);
    const bool bits32 = serverType == 5;
    if (extension == nullptr) return nullptr;
    if (ExtensionIs(extension, "dll")) {
        if (SUCCEEDED(IsDotNetAssembly(path))) return std::make_unique<CDotNetAssembly>();
        if (bits32) return std::make_unique<CInProc32Server>();
        return std::make_unique<CInProcServer>();
    }
    if (ExtensionIs(extension, "exe")) return std::make_unique<COutProcServer>();
    if (ExtensionIs(extension, "ocx")) {
        if (bits32) return std::make_unique<CInProc32Server>();
        return std::make_unique<CInProcServer>();
    }
    return nullptr;
}

std::unique_ptr<IComServer> CreateComServer(const std::string& path, unsigned int serverType,
                                            bool folderSupport) {
    std::unique_ptr<IComServer> server;
    switch (serverType) {
        case 1:
        case 5:
            // Type 1 reads the file the same way with or without folder support; type 5, its
            // 32-bit twin, exists only with it.
            if (folderSupport || serverType == 1) server = DetectComServer(path, serverType);
            break;
        case 2:
            server = std::make_unique<CInProcServer>();
            break;
        case 3:
            server = std::make_unique<COutProcServer>();
            break;
        case 4:
            server = std::make_unique<CDotNetAssembly>();
            break;
        case 6:
            if (folderSupport) server = std::make_unique<CInProc32Server>();
            break;
        default:
            break;
    }
    if (!server) throw std::runtime_error("Not a valid COM server");
    server->path = path;
    return server;
}

HRESULT IsDotNetAssembly(const std::string& path) {
    ScopeLog log("IsDotNetAssembly");
    log << "File: " << path << std::endl;
    ClrMetaHost host;
    HRESULT result = host.Create();
    if (SUCCEEDED(result)) {
        const std::wstring widePath = WidenText(path);
        wchar_t version[260] = {};
        DWORD chars = 260;
        result = host->GetVersionFromFile(widePath.c_str(), version, &chars);
        // The narrow log shows the wide buffer's address, not its text.
        log << ".NET version from file: " << static_cast<const void*>(version) << std::endl;
    }
    log << "HRESULT: " << std::hex << static_cast<unsigned long>(result) << std::endl;
    return result;
}

}  // namespace kite
