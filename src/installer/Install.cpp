#include "installer/KiteInstaller.h"

#include "KITEUpdate.h"
#include "common/BoundedFormat.h"
#include "exports/Helpers.h"
#include "installer/Events.h"
#include "installer/Signature.h"
#include "installer/Verify.h"
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

// Every check that can fail runs before the first change, so that a refused package leaves the
// product folder exactly as it was, without a marker: S_OK, or the status of the refusal.
HRESULT CKiteInstaller::Refusal(std::ostream& log, const Plan& plan) {
    std::string reason = ProductFolderRefusal(productFolder_);
    if (reason.empty()) reason = ReparseRefusal(productFolder_, JournalPath(productFolder_));
    if (!reason.empty()) {
        TraceAndReport(log,
                       "KITE: CKiteInstaller::Install refused the product folder " +
                           productFolder_ + ": " + reason,
                       true);
        return E_FAIL;
    }
    const bool digestsRequired = DigestsRequired();
    for (std::size_t i = 0; i < plan.size(); ++i) {
        const PlannedCommand& command = plan[i];
        HRESULT status = E_FAIL;
        reason = CommandRefusal(productFolder_, command);
        if (reason.empty()) reason = ReparseRefusal(productFolder_, command.dst);
        if (reason.empty() && (command.hasDigest || digestsRequired)) {
            verifiedSources_.emplace_back();
            reason = DigestRefusal(command, verifiedSources_.back());
            status = kBadDigest;
        }
        if (!reason.empty()) {
            TraceAndReport(log,
                           "KITE: CKiteInstaller::Install refused command " +
                               std::to_string(i + 1) + " (" + command.dst + "): " + reason,
                           true);
            return status;
        }
    }
    return S_OK;
}

// The marker exists from the moment the journal begins until the commit removes it, so a host
// that finds the installation cut short by a crash forces the fix, and InstallKite then settles
// the interrupted one before it starts again.
HRESULT CKiteInstaller::Transact(std::ostream& log, const Plan& plan) {
    char marker[260];
    FormatBounded(marker, "%s\\CriticalFixes\\force_apply_kite.dat", productFolder_.c_str());
    if (!durable_.Begin(productFolder_, folderSupport_)) {
        TraceAndReport(log,
                       "KITE: CKiteInstaller::Install cannot write its journal " +
                           JournalPath(productFolder_) +
                           " with GetLastError: " + std::to_string(::GetLastError()),
                       true);
        durable_.Finish();
        return E_FAIL;
    }
    bool ok = false;
    {
        JournaledChange armed(*this, {ActionRecord{marker, "", Action::ForceMarker, 0, ""}});
        if (armed.announced()) {
            armed.Made(0);
            ok = true;
        }
    }
    ok = ok && CreateEmptyMarker(marker) && CopyFiles(plan) && RegisterFiles(plan) &&
         durable_.Committing();
    if (ok) {
        Commit();
        TraceAndReport(log, "CKiteInstaller::Install successful", false);
        return S_OK;
    }
    TraceAndReport(log, "CKiteInstaller::Install failed, proceeding for Abort ", true);
    Abort();
    return E_FAIL;
}

HRESULT CKiteInstaller::Install(const char* manifestText) {
    ScopeLog log("CKiteInstaller::Install");
    HRESULT result = E_FAIL;
    // Nothing the manifest says is read before its signature is checked.
    const SignatureVerdict signature = CheckManifestSignature(log, manifestText);
    if (signature.status != S_OK) {
        log << "Return = " << std::hex << static_cast<unsigned long>(signature.status) << std::endl;
        return signature.status;
    }
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
            const Plan plan = ReadCommands(*commands);
            result = SignedManifestRefusal(log, signature, *commands, plan, productFolder_);
            if (result == S_OK) result = Refusal(log, plan);
            // An installation of this folder that was cut short is settled before this one
            // starts; one whose journal is not to be trusted stops this one.
            if (result == S_OK && _access(JournalPath(productFolder_).c_str(), 0) == 0) {
                CKiteInstaller interrupted;
                interrupted.SetProductFolder(productFolder_);
                if (FAILED(interrupted.Recover())) result = E_FAIL;
            }
            if (result == S_OK) result = Transact(log, plan);
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
