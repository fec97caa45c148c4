#include "common/Platform.h"

namespace kite {

PlatformCalls& Platform() {
    static PlatformCalls calls = {
        ::IsUserAnAdmin,           ::OpenProcessToken,    ::GetTokenInformation, ::CreateProcessA,
        ::GetFileVersionInfoSizeA, ::GetFileVersionInfoA, ::VerQueryValueA,      ::OpenProcess,
        ::GetModuleFileNameExA,
    };
    return calls;
}

}  // namespace kite
