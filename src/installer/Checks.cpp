// Every check that can fail runs before the first change, so that a refused package leaves the
// product folder exactly as it was, without a marker. A refusal names the command (by its number
// and dst) or the folder, and the reason, in the log and in an error event.
#include "installer/KiteInstaller.h"

#include "common/Platform.h"
#include "installer/BackupPolicy.h"
#include "installer/Events.h"
#include "installer/Signature.h"
#include "installer/Verify.h"
#include "telemetry/TelemetryReporter.h"

#include <objbase.h>
#include <io.h>

#include <map>
#include <set>

namespace kite {

namespace {

// A new GUID in its registry form ({...}, 38 characters) as ANSI text; empty when none was made.
std::string NewGuidText() {
    GUID guid;
    if (FAILED(Platform().CoCreateGuid(&guid))) return std::string();
    wchar_t wide[260] = {};
    ::StringFromGUID2(guid, wide, 260);
    char narrow[260] = {};
    ::WideCharToMultiByte(CP_THREAD_ACP, 0, wide, -1, narrow, sizeof narrow, nullptr, nullptr);
    return narrow;
}

}  // namespace

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

std::string CKiteInstaller::FolderRefusalText(const std::string& reason) const {
    return "KITE: CKiteInstaller::Install refused the product folder " + productFolder_ + ": " +
           reason;
}

HRESULT CKiteInstaller::RefuseFolder(std::ostream& log, const std::string& reason, HRESULT status) {
    TraceAndReport(log, FolderRefusalText(reason), true);
    return status;
}

HRESULT CKiteInstaller::Refusal(std::ostream& log, const std::vector<PlannedCommand>& commands) {
    const std::vector<Refused> refused = Refusals(commands, false);
    if (refused.empty()) return S_OK;
    TraceAndReport(log, refused.front().text, true);
    return refused.front().status;
}

// The checks in the order an installation meets them; the first refusal ends an installation,
// a package author's check lists them all. Each source that exists is opened and held.
std::vector<Refused> CKiteInstaller::Refusals(const std::vector<PlannedCommand>& commands,
                                              bool all) {
    std::vector<Refused> refused;
    std::string reason = ReparseRefusal(productFolder_, JournalPath(productFolder_));
    if (!reason.empty()) refused.push_back({FolderRefusalText(reason), E_FAIL});
    const bool digestsRequired = DigestsRequired();
    DriveTypes drives;
    std::map<std::string, std::size_t> destinations;  // upper-cased, to the first command naming it
    commands_.resize(commands.size());
    for (std::size_t i = 0; i < commands.size() && (all || refused.empty()); ++i) {
        CommandState& state = commands_[i];
        state.command = commands[i];
        state.index = i;
        HRESULT status = E_FAIL;
        reason = CommandRefusal(productFolder_, state.command);
        const auto named = destinations.emplace(FoldedPath(state.command.dst), i).first;
        if (reason.empty() && named->second != i) {
            reason = "dst is named by command " + std::to_string(named->second + 1) + " too";
        }
        if (reason.empty()) reason = ReparseRefusal(productFolder_, state.command.dst);
        if (reason.empty()) reason = SourceRefusal(state.command, drives, state.source);
        if (reason.empty() && (state.command.hasDigest || digestsRequired)) {
            reason = DigestRefusal(state.command, state.source.get());
            status = kBadDigest;
        }
        if (!reason.empty()) refused.push_back({CommandRefusalText(i, reason), status});
    }
    return refused;
}

std::string CKiteInstaller::CommandRefusalText(std::size_t index, const std::string& reason) const {
    return "KITE: CKiteInstaller::Install refused command " + std::to_string(index + 1) + " (" +
           commands_[index].command.dst + "): " + reason;
}

HRESULT CKiteInstaller::RefuseCommand(std::ostream& log, std::size_t index,
                                      const std::string& reason, HRESULT status) {
    TraceAndReport(log, CommandRefusalText(index, reason), true);
    return status;
}

std::vector<std::string> CKiteInstaller::CheckPackage(const char* manifestText) {
    std::vector<std::string> texts;
    try {
        const SignatureVerdict signature =
            CheckSignature(manifestText, ReadTrustedKeys(), SignatureRequired());
        if (signature.status != S_OK) {
            // The installation reads nothing more of a manifest refused for its signature.
            texts.push_back("KITE: CKiteInstaller::Install refused the manifest: " +
                            signature.reason);
            return texts;
        }
        const ptree manifest = ParseManifest(manifestText);
        productFolder_ = manifest.get<std::string>("commands.appdir");
        const std::string reason = ProductFolderRefusal(productFolder_);
        if (!reason.empty()) texts.push_back(FolderRefusalText(reason));
        const ptree& commands = manifest.get_child("commands");
        const std::vector<PlannedCommand> planned = ReadCommands(commands);
        for (const Refused& refused :
             SignedManifestRefusals(signature, commands, planned, productFolder_)) {
            texts.push_back(refused.text);
        }
        for (const Refused& refused : Refusals(planned, true)) texts.push_back(refused.text);
    } catch (const std::exception& error) {
        texts.push_back(std::string("KITE: CKiteInstaller::Install cannot read the manifest: ") +
                        error.what());
    }
    return texts;
}

// What the plan needs to know of each command's files, read once the folder is held and an
// interrupted installation is settled: nothing changes them until this installation does.
HRESULT CKiteInstaller::Survey(std::ostream& log) {
    std::set<std::string> backups;
    for (CommandState& state : commands_) {
        const std::string& dst = state.command.dst;
        const DWORD attributes = ::GetFileAttributesA(dst.c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
            return RefuseCommand(log, state.index, "dst is a folder", E_FAIL);
        }
        CommandFacts& facts = state.facts;
        facts.exists = attributes != INVALID_FILE_ATTRIBUTES;
        const std::string backup = BackupPath(productFolder_, dst);
        facts.backupWanted = facts.exists && IsWorthBackingUp(dst) &&
                             _access(backup.c_str(), 0) != 0 &&
                             backups.insert(FoldedPath(backup)).second;
        if (facts.exists) {
            const std::string guid = NewGuidText();
            if (!guid.empty()) facts.aside = dst.substr(0, dst.rfind('\\') + 1) + guid;
        }
        if (state.source) facts.identity = FileIdentity(state.source.get());
    }
    return S_OK;
}

}  // namespace kite
