#include "common/Platform.h"

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

// Assigned by name: the table grows with every platform call that needs a seam.
PlatformCalls RealPlatform() {
    PlatformCalls calls;
    calls.IsUserAnAdmin = ::IsUserAnAdmin;
    calls.OpenProcessToken = ::OpenProcessToken;
    calls.GetTokenInformation = ::GetTokenInformation;
    calls.CreateProcessA = ::CreateProcessA;
    calls.WaitForSingleObject = ::WaitForSingleObject;
    calls.GetFileVersionInfoSizeA = ::GetFileVersionInfoSizeA;
    calls.GetFileVersionInfoA = ::GetFileVersionInfoA;
    calls.VerQueryValueA = ::VerQueryValueA;
    calls.OpenProcess = ::OpenProcess;
    calls.GetModuleFileNameExA = ::GetModuleFileNameExA;
    calls.MoveFileA = ::MoveFileA;
    calls.CopyFileA = ::CopyFileA;
    calls.WriteFile = ::WriteFile;
    calls.FlushFileBuffers = ::FlushFileBuffers;
    calls.DeleteFileA = ::DeleteFileA;
    calls.MoveFileExA = ::MoveFileExA;
    calls.SHCreateDirectory = ::SHCreateDirectory;
    calls.CoCreateGuid = ::CoCreateGuid;
    calls.Sleep = ::Sleep;
    calls.LoadLibraryA = ::LoadLibraryA;
    calls.CLRCreateInstance = CLRCreateInstanceOfMscoree;
    calls.InternetOpenW = ::InternetOpenW;
    calls.InternetOpenUrlW = ::InternetOpenUrlW;
    calls.InternetReadFile = ::InternetReadFile;
    calls.InternetOpenA = ::InternetOpenA;
    calls.InternetConnectA = ::InternetConnectA;
    calls.HttpOpenRequestA = ::HttpOpenRequestA;
    calls.HttpSendRequestA = ::HttpSendRequestA;
    calls.HttpEndRequestA = ::HttpEndRequestA;
    calls.CoCreateInstance = ::CoCreateInstance;
    calls.GetConnectivity = AskConnectivity;
    calls.VerifyVersionInfoW = ::VerifyVersionInfoW;
    calls.IsWow64Process = LookUpIsWow64Process();
    calls.BCryptOpenAlgorithmProvider = ::BCryptOpenAlgorithmProvider;
    calls.BCryptCreateHash = ::BCryptCreateHash;
    calls.BCryptHashData = ::BCryptHashData;
    calls.BCryptFinishHash = ::BCryptFinishHash;
    calls.BCryptImportKeyPair = ::BCryptImportKeyPair;
    calls.BCryptVerifySignature = ::BCryptVerifySignature;
    calls.BCryptDestroyKey = ::BCryptDestroyKey;
    return calls;
}

}  // namespace

PlatformCalls& Platform() {
    static PlatformCalls calls = RealPlatform();
    return calls;
}

}  // namespace kite
