// The .NET runtime's hosting interfaces, declared here because mingw-w64 ships no metahost.h.
// Methods are listed in vtable order; the GUIDs are the runtime's published ones.
#pragma once

#include "common/Handles.h"

#include <windows.h>
#include <objbase.h>

namespace kite {

// {9280188D-0E8E-4867-B30C-7FA83884E8DE}
constexpr CLSID kClsidClrMetaHost = {
    0x9280188d, 0x0e8e, 0x4867, {0xb3, 0x0c, 0x7f, 0xa8, 0x38, 0x84, 0xe8, 0xde}};
// {D332DB9E-B9B3-4125-8207-A14884F53216}
constexpr IID kIidClrMetaHost = {
    0xd332db9e, 0xb9b3, 0x4125, {0x82, 0x07, 0xa1, 0x48, 0x84, 0xf5, 0x32, 0x16}};
// {BD39D1D2-BA2F-486A-89B0-B4B0CB466891}
constexpr IID kIidClrRuntimeInfo = {
    0xbd39d1d2, 0xba2f, 0x486a, {0x89, 0xb0, 0xb4, 0xb0, 0xcb, 0x46, 0x68, 0x91}};

struct ICLRMetaHost : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetRuntime(LPCWSTR version, REFIID riid, LPVOID* runtime) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetVersionFromFile(LPCWSTR filePath, LPWSTR buffer,
                                                         DWORD* bufferChars) = 0;
    virtual HRESULT STDMETHODCALLTYPE EnumerateInstalledRuntimes(IEnumUnknown** runtimes) = 0;
    virtual HRESULT STDMETHODCALLTYPE EnumerateLoadedRuntimes(HANDLE process,
                                                              IEnumUnknown** runtimes) = 0;
    virtual HRESULT STDMETHODCALLTYPE RequestRuntimeLoadedNotification(void* callback) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryLegacyV2RuntimeBinding(REFIID riid, LPVOID* unk) = 0;
    virtual void STDMETHODCALLTYPE ExitProcess(INT32 exitCode) = 0;
};

struct ICLRRuntimeInfo : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetVersionString(LPWSTR buffer, DWORD* bufferChars) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetRuntimeDirectory(LPWSTR buffer, DWORD* bufferChars) = 0;
    // Further methods follow in the runtime's vtable; none of them is called here.
};

// The runtime's meta-host. mscoree.dll stays loaded while the interface it handed out is alive.
class ClrMetaHost {
  public:
    HRESULT Create();
    ICLRMetaHost* operator->() const { return host_.get(); }

  private:
    UniqueModule mscoree_;
    ComPtr<ICLRMetaHost> host_;  // declared last: released before mscoree_ is unloaded
};

}  // namespace kite
