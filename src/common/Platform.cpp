#include "common/Platform.h"

namespace kite {

PlatformCalls& Platform() {
    static PlatformCalls calls = {
        ::IsUserAnAdmin,
        ::OpenProcessToken,
        ::GetTokenInformation,
        ::CreateProcessA,
    };
    return calls;
}

}  // namespace kite
