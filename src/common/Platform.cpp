#include "common/Platform.h"

namespace kite {

namespace {

HRESULT AskConnectivity(INetworkListManager* manager, NLM_CONNECTIVITY* connectivity) {
    return manager->GetConnectivity(connectivity);
}

decltype(&::IsWow64Process) LookUpIsWow64Process() {
    HMODULE kernel = ::GetModuleHandleA("kernel32");
    FARPROC found = kernel == nullptr ? nullptr : ::GetProcAddress(kernel, "IsWow64Process");
    return reinterpret_cast<decltype(&::IsWow64Process)>(reinterpret_cast<void*>(found));
}

}  // namespace

PlatformCalls& Platform() {
    static PlatformCalls calls = {
        ::IsUserAnAdmin,      ::OpenProcessToken,     ::GetTokenInformation, ::CreateProcessA,
        ::InternetOpenW,      ::InternetOpenUrlW,     ::InternetReadFile,    ::InternetOpenA,
        ::InternetConnectA,   ::HttpOpenRequestA,     ::HttpSendRequestA,    ::HttpEndRequestA,
        ::URLDownloadToFileA, ::CoCreateGuid,         ::CoCreateInstance,    AskConnectivity,
        ::VerifyVersionInfoW, LookUpIsWow64Process(),
    };
    return calls;
}

}  // namespace kite
