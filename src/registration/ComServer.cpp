#include "registration/ComServer.h"

#include "common/BoundedFormat.h"
#include "common/Handles.h"
#include "common/Platform.h"
#include "exports/Helpers.h"
#include "log/ScopeLog.h"
#include "registration/ClrHosting.h"

#include <shlobj.h>
#include <io.h>

namespace kite {

namespace {

const DWORD kWait = 1;

// A program's exit code or a start's failure status, read as a status.
HRESULT Run(const char* program, const std::string& arguments) {
    return static_cast<HRESULT>(LaunchAndWait(program, arguments.c_str(), &kWait));
}

// The same for a program named by its bare name on the command line and started from the path
// given, so that no folder a user can write is searched for it.
HRESULT RunAs(const char* application, const char* program, const std::string& arguments) {
    return static_cast<HRESULT>(LaunchAndWaitAs(application, program, arguments.c_str(), &kWait));
}

std::string Regsvr32Arguments(const std::string& path, bool reg) {
    return std::string("/s ") + (reg ? "" : "/u ") + "\"" + path + "\"";
}

// The server's folder is the DLL directory while the server loads and registers, so that
// libraries shipped beside it are found. The host's own setting (or none) comes back afterwards:
// left set, every later load in the host would search a package's folder.
class DllDirectoryOfServer {
  public:
    explicit DllDirectoryOfServer(const std::string& folder) {
        std::string saved(MAX_PATH + 1, '\0');
        DWORD chars = ::GetDllDirectoryA(static_cast<DWORD>(saved.size()), &saved[0]);
        if (chars >= saved.size()) {
            saved.resize(chars + 1);
            chars = ::GetDllDirectoryA(static_cast<DWORD>(saved.size()), &saved[0]);
        }
        hadOne_ = chars > 0 && chars < saved.size();
        saved_ = saved.substr(0, hadOne_ ? chars : 0);
        ::SetDllDirectoryA(folder.c_str());
    }
    ~DllDirectoryOfServer() { ::SetDllDirectoryA(hadOne_ ? saved_.c_str() : nullptr); }
    DllDirectoryOfServer(const DllDirectoryOfServer&) = delete;
    DllDirectoryOfServer& operator=(const DllDirectoryOfServer&) = delete;

  private:
    std::string saved_;
    bool hadOne_ = false;
};

// Loads the server into this process and calls its own registration entry.
HRESULT LoadAndCallEntry(std::ostream& log, const std::string& path, std::size_t slash, bool reg) {
    const char* entry = reg ? "DllRegisterServer" : "DllUnregisterServer";
    const DllDirectoryOfServer directory(path.substr(0, slash));
    UniqueModule server(Platform().LoadLibraryA(path.c_str()));
    if (!server) {
        const DWORD error = ::GetLastError();
        log << "Failed to load DLL. GetLastError: " << error << std::endl;
        return static_cast<HRESULT>(StatusOfError(error));
    }
    using Entry = HRESULT(STDAPICALLTYPE*)();
    const auto call =
        reinterpret_cast<Entry>(reinterpret_cast<void*>(::GetProcAddress(server.get(), entry)));
    log << entry << " : " << reinterpret_cast<const void*>(call) << std::endl;
    return call != nullptr ? call() : E_INVALIDARG;
}

HRESULT RegisterInProcessLogged(const char* scope, const std::string& path, bool reg) {
    ScopeLog log(scope);
    log << "server: " << path << " register: " << reg << std::endl;
    const std::string::size_type slash = path.rfind('\\');
    const HRESULT result = path.empty() || slash == std::string::npos
                               ? E_FAIL
                               : LoadAndCallEntry(log, path, slash, reg);
    log << "HRESULT: " << std::hex << static_cast<unsigned long>(result) << std::endl;
    return result;
}

// regsvr32 by its full path: found by its bare name, the host's folder and the current folder
// would be searched first, and a copy planted there would run as administrator.
HRESULT Regsvr32Path(char (&program)[261], bool bits32) {
    if (bits32) {
        if (FAILED(::SHGetFolderPathA(nullptr, CSIDL_SYSTEMX86, nullptr, 0, program)))
            return E_FAIL;
    } else {
        const UINT chars = ::GetSystemDirectoryA(program, sizeof program);
        if (chars == 0 || chars >= sizeof program) return E_FAIL;
    }
    AppendBounded(program, "\\regsvr32.exe");
    return S_OK;
}

// The .NET 4 regasm of the 32-bit Framework folder (deliberately not Framework64) under the
// folder Windows itself is installed in: a fixed drive letter could name a path that an ordinary
// user may create when Windows lives on another drive.
std::string FrameworkRegasmPath() {
    char windows[261] = {};
    const UINT chars = ::GetSystemWindowsDirectoryA(windows, sizeof windows);
    if (chars == 0 || chars >= sizeof windows) return std::string();
    return std::string(windows) + "\\Microsoft.NET\\Framework\\v4.0.30319\\regasm.exe";
}

}  // namespace

HRESULT CInProcServer::RegisterWithRegsvr32(bool reg) {
    char program[261] = {};
    if (FAILED(Regsvr32Path(program, false))) return E_FAIL;
    if (RunAs(program, "regsvr32.exe", Regsvr32Arguments(path, reg)) == S_OK) return S_OK;
    return RegisterInProcess(reg);
}

HRESULT CInProcServer::RegisterInProcess(bool reg) {
    return RegisterInProcessLogged("CInProcServer::_Register", path, reg);
}

HRESULT CInProc32Server::RegisterWithRegsvr32(bool reg) {
    char program[261] = {};
    if (FAILED(Regsvr32Path(program, true))) return E_FAIL;
    if (Run(program, Regsvr32Arguments(path, reg)) == S_OK) return S_OK;
    // Loading a 32-bit server into this 64-bit process normally fails; its load error is then
    // the most telling answer.
    return RegisterInProcess(reg);
}

HRESULT CInProc32Server::RegisterInProcess(bool reg) {
    return RegisterInProcessLogged("CInProc32Server::_Register", path, reg);
}

HRESULT COutProcServer::Register() { return Run(path.c_str(), "/regserver"); }

HRESULT COutProcServer::Unregister() { return Run(path.c_str(), "/unregserver"); }

namespace {

// Where the .NET 4 runtime says it lives; empty when it cannot say.
std::string RuntimeDirectory(ScopeLog& log) {
    ClrMetaHost host;
    if (FAILED(host.Create())) return std::string();
    log << "CLRCreateInstance() succeeded" << std::endl;
    ComPtr<ICLRRuntimeInfo> runtime;
    if (FAILED(host->GetRuntime(L"v4.0.30319", kIidClrRuntimeInfo, runtime.put_void()))) {
        return std::string();
    }
    log << ".NET4 runtime is installed" << std::endl;
    wchar_t folder[260] = {};
    DWORD chars = 260;
    if (FAILED(runtime->GetRuntimeDirectory(folder, &chars))) return std::string();
    char narrow[520] = {};
    ::WideCharToMultiByte(CP_THREAD_ACP, 0, folder, -1, narrow, sizeof narrow, nullptr, nullptr);
    return narrow;
}

}  // namespace

HRESULT CDotNetAssembly::RunRegasm(bool reg) {
    ScopeLog log("CDotNetAssembly::_Register");
    log << "Assembly: " << path << " register: " << (reg ? 1 : 0) << std::endl;
    std::string regasm = FrameworkRegasmPath();
    if (regasm.empty() || _access(regasm.c_str(), 0) != 0) {
        log << "regasm not found at " << regasm << std::endl;
        const std::string folder = RuntimeDirectory(log);
        regasm = folder.empty() ? std::string() : folder + "\\regasm.exe";
    }
    log << "regasm: " << regasm << std::endl;
    if (_access(regasm.c_str(), 0) != 0) return E_FAIL;
    return Run(regasm.c_str(), "\"" + path + "\" /silent" + (reg ? " /tlb" : " /unregister"));
}

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
