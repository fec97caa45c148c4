#include "registration/ClrHosting.h"

#include "common/Platform.h"

namespace kite {

HRESULT ClrMetaHost::Create() {
    // From the system folder only: a planted mscoree.dll beside the host would run as
    // administrator.
    mscoree_.reset(::LoadLibraryExA("mscoree.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32));
    if (!mscoree_) return HRESULT_FROM_WIN32(::GetLastError());
    return Platform().CLRCreateInstance(kClsidClrMetaHost, kIidClrMetaHost, host_.put_void());
}

}  // namespace kite
