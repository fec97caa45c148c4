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

std::string Regsvr32Arguments(const std::string& path, bool reg) {
    return std::string("/s ") + (reg ? "" : "/u ") + "\"" + path + "\"";
}

// Loads the server into this process and calls its own registration entry. The server's folder
// becomes the DLL directory so that libraries shipped beside it are found; it stays set for the
// process.
HRESULT RegisterInProcess(const char* scope, const std::string& path, bool reg) {
    ScopeLog log(scope);
    log << "server: " << path << " register: " << reg << std::endl;
    HRESULT result = E_FAIL;
    const std::string::size_type slash = path.rfind('\\');
    if (!path.empty() && slash != std::string::npos) {
        const char* entry = reg ? "DllRegisterServer" : "DllUnregisterServer";
        ::SetDllDirectoryA(path.substr(0, slash).c_str());
        UniqueModule server(Platform().LoadLibraryA(path.c_str()));
        if (!server) {
            const DWORD error = ::GetLastError();
            log << "Failed to load DLL. GetLastError: " << error << std::endl;
            result = StatusOfError(error);
        } else {
            using Entry = HRESULT(STDAPICALLTYPE*)();
            const auto call = reinterpret_cast<Entry>(
                reinterpret_cast<void*>(::GetProcAddress(server.get(), entry)));
            log << entry << " : " << reinterpret_cast<const void*>(call) << std::endl;
            result = call != nullptr ? call() : E_INVALIDARG;
        }
    }
    log << "HRESULT: " << std::hex << static_cast<unsigned long>(result) << std::endl;
    return result;
}

}  // namespace

HRESULT CInProcServer::RegisterWithRegsvr32(bool reg) {
    if (LaunchAndWait("regsvr32.exe", Regsvr32Arguments(path, reg).c_str(), &kWait) == 0) return 0;
    return _Register(reg);
}

HRESULT CInProcServer::_Register(bool reg) {
    return RegisterInProcess("CInProcServer::_Register", path, reg);
}

HRESULT CInProc32Server::RegisterWithRegsvr32(bool reg) {
    char program[261] = {};
    if (FAILED(::SHGetFolderPathA(nullptr, CSIDL_SYSTEMX86, nullptr, 0, program))) return E_FAIL;
    AppendBounded(program, "\\regsvr32.exe");
    if (LaunchAndWait(program, Regsvr32Arguments(path, reg).c_str(), &kWait) == 0) return 0;
    // Loading a 32-bit server into this 64-bit process normally fails; its load error is then
    // the most telling answer.
    return _Register(reg);
}

HRESULT CInProc32Server::_Register(bool reg) {
    return RegisterInProcess("CInProc32Server::_Register", path, reg);
}

HRESULT COutProcServer::Register() { return LaunchAndWait(path.c_str(), "/regserver", &kWait); }

HRESULT COutProcServer::Unregister() { return LaunchAndWait(path.c_str(), "/unregserver", &kWait); }

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

HRESULT CDotNetAssembly::_Register(bool reg) {
    ScopeLog log("CDotNetAssembly::_Register");
    log << "Assembly: " << path << " register: " << (reg ? 1 : 0) << std::endl;
    // Deliberately the 32-bit Framework folder, not Framework64.
    std::string regasm = "C:\\Windows\\Microsoft.NET\\Framework\\v4.0.30319\\regasm.exe";
    if (_access(regasm.c_str(), 0) != 0) {
        log << "regasm not found at " << regasm << std::endl;
        const std::string folder = RuntimeDirectory(log);
        regasm = folder.empty() ? std::string() : folder + "\\regasm.exe";
    }
    log << "regasm: " << regasm << std::endl;
    HRESULT result = E_FAIL;
    if (_access(regasm.c_str(), 0) == 0) {
        const std::string arguments = "\"" + path + "\" /silent" + (reg ? " /tlb" : " /unregister");
        result = LaunchAndWait(regasm.c_str(), arguments.c_str(), &kWait);
    }
    return result;
}

}  // namespace kite
