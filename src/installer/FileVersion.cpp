// Versions of installed files, as the installer reads them before replacing the product.
#include "installer/KiteInstaller.h"

#include "common/VersionResource.h"
#include "log/ScopeLog.h"

namespace kite {

namespace {

// The messages name the 32-bit main program whatever file was read; support staff search the
// log for them as they stand.
const char* FailureMessage(VersionReadStep step) {
    switch (step) {
        case VersionReadStep::kSize:
            return "Failed while reading GetFileVersionInfoSize TWW32.exe :  ";
        case VersionReadStep::kInformation:
            return "Failed while reading GetFileVersionInfo of TWW32.exe : ";
        default:
            return "Failed while VerQueryValue for TWW32.exe :  ";
    }
}

}  // namespace

HRESULT CKiteInstaller::GetFileVersion(const char* path, VS_FIXEDFILEINFO& info) {
    ScopeLog log("CKiteInstaller::GetFileVersion");
    if (path == nullptr) {
        log << "Invalid argument: path is null" << std::endl;
        return E_FAIL;
    }
    const VersionReadResult read = ReadFixedFileInfo(path, info);
    if (read.failedStep == VersionReadStep::kNone) return S_OK;
    log << FailureMessage(read.failedStep) << read.error << std::endl;
    return E_FAIL;
}

HRESULT CKiteInstaller::GetModuleVersion(const char* path, DWORD& major, DWORD& build) {
    ScopeLog log("CKiteInstaller::GetModuleVersion");
    VS_FIXEDFILEINFO info = {};
    const HRESULT status = GetFileVersion(path, info);
    if (FAILED(status)) {
        log << "Failed while reading File version of TWW32.exe :" << ::GetLastError() << std::endl;
        return status;
    }
    major = HIWORD(info.dwFileVersionMS);
    build = HIWORD(info.dwFileVersionLS);
    return S_OK;
}

}  // namespace kite
