// The component servers a package can carry, each knowing how to register and unregister one
// file: in-process DLLs and OCX controls (native and 32-bit), out-of-process EXE servers, and
// .NET assemblies. Every operation answers an HRESULT in which S_OK alone means success: S_FALSE
// from a server's registration entry is a failure too.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

namespace kite {

class IComServer {
  public:
    virtual HRESULT Register() = 0;
    virtual HRESULT Unregister() = 0;
    virtual ~IComServer() = default;

    std::string path;
};

// regsvr32 of the platform's own bitness, from the system folder.
class CInProcServer : public IComServer {
  public:
    HRESULT Register() override { return RegisterWithRegsvr32(true); }
    HRESULT Unregister() override { return RegisterWithRegsvr32(false); }
    HRESULT RegisterWithRegsvr32(bool reg);
    HRESULT RegisterInProcess(bool reg);
};

// regsvr32 of the 32-bit system folder.
class CInProc32Server : public IComServer {
  public:
    HRESULT Register() override { return RegisterWithRegsvr32(true); }
    HRESULT Unregister() override { return RegisterWithRegsvr32(false); }
    HRESULT RegisterWithRegsvr32(bool reg);
    HRESULT RegisterInProcess(bool reg);
};

// An EXE server registers itself.
class COutProcServer : public IComServer {
  public:
    HRESULT Register() override;
    HRESULT Unregister() override;
};

// regasm of the .NET 4 runtime.
class CDotNetAssembly : public IComServer {
  public:
    HRESULT Register() override { return RunRegasm(true); }
    HRESULT Unregister() override { return RunRegasm(false); }
    HRESULT RunRegasm(bool reg);
};

// The server object for a file: by the manifest's server type, or for types 1 and 5 by the file
// itself. Throws std::runtime_error("Not a valid COM server") when no kind fits.
std::unique_ptr<IComServer> CreateComServer(const std::string& path, unsigned int serverType,
                                            bool folderSupport);
std::unique_ptr<IComServer> DetectComServer(const std::string& path, unsigned int serverType);

// 0 or above: the file is a .NET assembly; below 0: it is not, or the runtime could not say.
HRESULT IsDotNetAssembly(const std::string& path);

// Registers (reg non-zero) or unregisters the file as the server kind that serverType and the
// folder-support flag give it; S_OK without doing anything when serverType is below 1. Throws
// std::runtime_error("Not a valid COM server") when no kind fits.
HRESULT RegisterServer(const std::string& path, int reg, int serverType, bool folderSupport);

}  // namespace kite
