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

PlatformCalls RealPlatform() {
    PlatformCalls calls;
    calls.IsUserAnAdmin = ::IsUserAnAdmin;
    calls.OpenProcessToken = ::OpenProcessToken;
    calls.GetTokenInformation = ::GetTokenInformation;
    calls.CreateProcessA = ::CreateProcessA;
    calls.GetFileVersionInfoSizeA = ::GetFileVersionInfoSizeA;
    calls.GetFileVersionInfoA = ::GetFileVersionInfoA;
    calls.VerQueryValueA = ::VerQueryValueA;
    calls.OpenProcess = ::OpenProcess;
    calls.GetModuleFileNameExA = ::GetModuleFileNameExA;
    calls.MoveFileA = ::MoveFileA;
    calls.CopyFileA = ::CopyFileA;
    calls.DeleteFileA = ::DeleteFileA;
    calls.MoveFileExA = ::MoveFileExA;
    calls.SHCreateDirectory = ::SHCreateDirectory;
    calls.CoCreateGuid = ::CoCreateGuid;
    calls.Sleep = ::Sleep;
    calls.LoadLibraryA = ::LoadLibraryA;
    calls.CLRCreateInstance = CLRCreateInstanceOfMscoree;
    return calls;
}

}  // namespace

PlatformCalls& Platform() {
    static PlatformCalls calls = RealPlatform();
    return calls;
}

}  // namespace kite
