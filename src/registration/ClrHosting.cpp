#include "registration/ClrHosting.h"

#include "common/Platform.h"

namespace kite {

HRESULT ClrMetaHost::Create() {
    mscoree_.reset(::LoadLibraryA("mscoree.dll"));
    if (!mscoree_) return HRESULT_FROM_WIN32(::GetLastError());
    return Platform().CLRCreateInstance(kClsidClrMetaHost, kIidClrMetaHost, host_.put_void());
}

}  // namespace kite
