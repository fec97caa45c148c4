#include "installer/KiteInstaller.h"

#include "KITEUpdate.h"
#include "common/BoundedFormat.h"
#include "exports/Helpers.h"
#include "installer/Events.h"
#include "log/ScopeLog.h"

#include <io.h>

namespace kite {

// The installed release and major version go with every event of this installation.
void CKiteInstaller::ReportVersionFacts() const {
    DWORD major = 0;
    DWORD release = 0;
    if (GetModuleVersion(ProductExecutable().c_str(), major, release) != S_OK) return;
    TelemetryReporter& reporter = TelemetryReporter::Instance();
    reporter.SetSlipStream(std::to_string(release));
    reporter.SetMajorVersion(std::to_string(major));
    reporter.LoadBuildNumber(productFolder_.c_str());
}

HRESULT CKiteInstaller::Install(const char* manifestText) {
    ScopeLog log("CKiteInstaller::Install");
    HRESULT result = E_FAIL;
    try {
        const ptree manifest = ParseManifest(manifestText);
        productFolder_ = manifest.get<std::string>("commands.appdir");
        ReportVersionFacts();
        const int admin = CheckIsUserAdmin();
        log << "Admin = " << admin << std::endl;
        if (admin == 0) {
            ReportError("No Admin access to install Kite in CKiteInstaller::Install");
            return E_ACCESSDENIED;
        }
        ReportInfo("Admin access to install Kite in CKiteInstaller::Install");
        // An installation of this folder that was cut short is settled before this one starts.
        if (_access(JournalPath(productFolder_).c_str(), 0) == 0) {
            CKiteInstaller interrupted;
            interrupted.SetProductFolder(productFolder_);
            interrupted.Recover();
        }
        const boost::optional<std::string> folderSupport =
            manifest.get_optional<std::string>("commands.enableCodeForKITEFolderSupport");
        if (folderSupport) {
            folderSupport_ = *folderSupport == "1";
            // Reported whenever the switch is present, whatever its text.
            TraceAndReport(
                log, "CKiteInstaller::Install code to support new folder structure is enabled",
                false);
        }
        if (const boost::optional<const ptree&> commands =
                manifest.get_child_optional("commands")) {
            // The oldest record, so the last one undone: an undone installation leaves the
            // marker, a committed one removes it.
            char marker[260];
            FormatBounded(marker, "%s\\CriticalFixes\\force_apply_kite.dat",
                          productFolder_.c_str());
            durable.Begin(productFolder_, folderSupport_);
            durable.Intend(ActionRecord{marker, "", kForceMarker});
            RecordAction(marker, "", kForceMarker);
            if (CopyFiles(*commands) && RegisterFiles(*commands)) {
                Commit();
                result = S_OK;
                TraceAndReport(log, "CKiteInstaller::Install successful", false);
            } else {
                TraceAndReport(log, "CKiteInstaller::Install failed, proceeding for Abort ", true);
                Abort();
            }
        }
    } catch (...) {
        ReportError("Exceptions in CKiteInstaller::Install");
        Abort();
        result = E_FAIL;
    }
    log << "Return = " << std::hex << static_cast<unsigned long>(result) << std::endl;
    return result;
}

}  // namespace kite

// Each export that reports waits (boundedly) for its events, so that a host that looks at the
// collector after the call sees them.
extern "C" HRESULT RecoverKite(const char* productFolder) {
    const kite::FlushOnReturn flush;
    try {
        if (productFolder == nullptr) {
            kite::ScopeLog log("RecoverKite");
            log << "Invalid argument: product folder is null" << std::endl;
            return E_INVALIDARG;
        }
        kite::CKiteInstaller installer;
        installer.SetProductFolder(productFolder);
        return installer.Recover();
    } catch (...) {
        return E_FAIL;
    }
}

extern "C" HRESULT InstallKite(const char* manifest) {
    const kite::FlushOnReturn flush;
    try {
        kite::CKiteInstaller installer;
        return installer.Install(manifest);
    } catch (...) {
        return E_FAIL;
    }
}
