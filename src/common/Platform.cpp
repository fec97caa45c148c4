#include "common/Platform.h"

#include <type_traits>

namespace kite {

namespace {

// mscoree.dll has no import library in mingw-w64, so the runtime's entry is looked up by name.
HRESULT WINAPI CLRCreateInstanceOfMscoree(REFCLSID clsid, REFIID riid, LPVOID* object) {
    using Create = HRESULT(WINAPI*)(REFCLSID, REFIID, LPVOID*);
    const auto create = reinterpret_cast<Create>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleA("mscoree.dll"), "CLRCreateInstance")));
    return create == nullptr ? E_NOTIMPL : create(clsid, riid, object);
}

HRESULT AskConnectivity(INetworkListManager* manager, NLM_CONNECTIVITY* connectivity) {
    return manager->GetConnectivity(connectivity);
}

decltype(&::IsWow64Process) LookUpIsWow64Process() {
    HMODULE kernel = ::GetModuleHandleA("kernel32");
    FARPROC found = kernel == nullptr ? nullptr : ::GetProcAddress(kernel, "IsWow64Process");
    return reinterpret_cast<decltype(&::IsWow64Process)>(reinterpret_cast<void*>(found));
}

// How a missing function fails: a version or WinINet function answers FALSE, a null handle or 0
// bytes; a CNG function a failing status, the one RtlNtStatusToDosError makes ERROR_PROC_NOT_FOUND.
constexpr LONG kNothing = 0;
constexpr LONG kEntryPointNotFound = static_cast<LONG>(0xC0000139L);

// What an entry answers when its DLL or function is missing from the system folder: the
// function's own failure (FALSE, no handle, no bytes, a failing status) with the last error
// ERROR_PROC_NOT_FOUND, which its callers handle as any other failure of that call.
template <typename Fn, LONG kFailure>
struct Missing;
template <typename R, typename... A, LONG kFailure>
struct Missing<R(WINAPI*)(A...), kFailure> {
    static R WINAPI Answer(A...) {
        ::SetLastError(ERROR_PROC_NOT_FOUND);
        if constexpr (std::is_pointer_v<R>) {
            return nullptr;
        } else {
            return static_cast<R>(kFailure);
        }
    }
};

template <LONG kFailure, typename Fn>
void Bind(Fn& entry, HMODULE module, const char* name) {
    const FARPROC found = module == nullptr ? nullptr : ::GetProcAddress(module, name);
    entry = found == nullptr ? &Missing<Fn, kFailure>::Answer
                             : reinterpret_cast<Fn>(reinterpret_cast<void*>(found));
}

// Searched for in the system folder only, and so are the DLLs it imports: loaded by name, the
// host program's folder would come first. Loaded when the table is first used (never in
// DllMain) and kept for the life of the process, as the table that points into it.
HMODULE SystemDll(const char* name) {
    return ::LoadLibraryExA(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

#define KITE_BIND(module, name, failure) Bind<failure>(calls.name, module, #name)

void BindVersion(PlatformCalls& calls) {
    const HMODULE version = SystemDll("version.dll");
    KITE_BIND(version, GetFileVersionInfoSizeA, kNothing);
    KITE_BIND(version, GetFileVersionInfoA, kNothing);
    KITE_BIND(version, VerQueryValueA, kNothing);
}

void BindWinInet(PlatformCalls& calls) {
    const HMODULE wininet = SystemDll("wininet.dll");
    KITE_BIND(wininet, InternetOpenW, kNothing);
    KITE_BIND(wininet, InternetOpenUrlW, kNothing);
    KITE_BIND(wininet, InternetReadFile, kNothing);
    KITE_BIND(wininet, InternetOpenA, kNothing);
    KITE_BIND(wininet, InternetConnectA, kNothing);
    KITE_BIND(wininet, HttpOpenRequestA, kNothing);
    KITE_BIND(wininet, HttpSendRequestA, kNothing);
    KITE_BIND(wininet, HttpEndRequestA, kNothing);
    KITE_BIND(wininet, InternetSetOptionA, kNothing);
    KITE_BIND(wininet, InternetCloseHandle, kNothing);
}

void BindCng(PlatformCalls& calls) {
    const HMODULE bcrypt = SystemDll("bcrypt.dll");
    KITE_BIND(bcrypt, BCryptOpenAlgorithmProvider, kEntryPointNotFound);
    KITE_BIND(bcrypt, BCryptCloseAlgorithmProvider, kEntryPointNotFound);
    KITE_BIND(bcrypt, BCryptCreateHash, kEntryPointNotFound);
    KITE_BIND(bcrypt, BCryptHashData, kEntryPointNotFound);
    KITE_BIND(bcrypt, BCryptFinishHash, kEntryPointNotFound);
    KITE_BIND(bcrypt, BCryptDestroyHash, kEntryPointNotFound);
    KITE_BIND(bcrypt, BCryptImportKeyPair, kEntryPointNotFound);
    KITE_BIND(bcrypt, BCryptVerifySignature, kEntryPointNotFound);
    KITE_BIND(bcrypt, BCryptDestroyKey, kEntryPointNotFound);
}

#undef KITE_BIND

// Assigned by name: the table grows with every platform call that needs a seam.
PlatformCalls RealPlatform() {
    PlatformCalls calls;
    calls.IsUserAnAdmin = ::IsUserAnAdmin;
    calls.OpenProcessToken = ::OpenProcessToken;
    calls.GetTokenInformation = ::GetTokenInformation;
    calls.CreateProcessA = ::CreateProcessA;
    calls.WaitForSingleObject = ::WaitForSingleObject;
    calls.OpenProcess = ::OpenProcess;
    calls.GetModuleFileNameExA = ::GetModuleFileNameExA;
    calls.MoveFileA = ::MoveFileA;
    calls.CopyFileA = ::CopyFileA;
    calls.CreateFileA = ::CreateFileA;
    calls.WriteFile = ::WriteFile;
    calls.FlushFileBuffers = ::FlushFileBuffers;
    calls.DeleteFileA = ::DeleteFileA;
    calls.MoveFileExA = ::MoveFileExA;
    calls.SHCreateDirectory = ::SHCreateDirectory;
    calls.CoCreateGuid = ::CoCreateGuid;
    calls.Sleep = ::Sleep;
    calls.LoadLibraryA = ::LoadLibraryA;
    calls.CLRCreateInstance = CLRCreateInstanceOfMscoree;
    calls.CoCreateInstance = ::CoCreateInstance;
    calls.GetConnectivity = AskConnectivity;
    calls.VerifyVersionInfoW = ::VerifyVersionInfoW;
    calls.IsWow64Process = LookUpIsWow64Process();
    BindVersion(calls);
    BindWinInet(calls);
    BindCng(calls);
    return calls;
}

}  // namespace

PlatformCalls& Platform() {
    static PlatformCalls calls = RealPlatform();
    return calls;
}

}  // namespace kite
