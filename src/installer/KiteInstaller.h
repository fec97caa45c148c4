// CKiteInstaller: the installer object of one installation. It owns the action journal, the
// product folder and the folder-support flag; Commit or Abort consumes the journal.
//
// An installation is decided before it is applied: the manifest becomes a list of commands, and
// every command is checked (paths, payload digests, links on the way) before the first change.
// Then each change goes through JournaledChange, the one place that owns the journal's order:
// announce the records on disk, make the change, record what was made, settle what was not.
// Steps answer true for success and write their own log line where they fail.
#pragma once

#include "common/Handles.h"
#include "installer/ActionRecord.h"
#include "installer/CommandCheck.h"
#include "installer/DurableJournal.h"
#include "installer/Manifest.h"

#include <windows.h>

#include <deque>
#include <ostream>
#include <string>
#include <vector>

namespace kite {

class JournaledChange;
using Plan = std::vector<PlannedCommand>;

class CKiteInstaller {
  public:
    // The whole fixed-file-information block of the file at path: S_OK or E_FAIL.
    static HRESULT GetFileVersion(const char* path, VS_FIXEDFILEINFO& info);
    // The major and build components of the file's version (build not split into level and
    // slipstream): S_OK or the failure status of GetFileVersion.
    static HRESULT GetModuleVersion(const char* path, DWORD& major, DWORD& build);

    const std::deque<ActionRecord>& journal() const { return journal_; }
    const std::string& productFolder() const { return productFolder_; }
    void SetProductFolder(std::string folder) { productFolder_ = std::move(folder); }
    void SetFolderSupport(bool on) { folderSupport_ = on; }

    // Journal and backups.
    void RecordAction(const ActionRecord& record);
    void RecordComRegistration(const std::string& path, unsigned int reg, unsigned int serverType);
    int TakeBackup(unsigned int majorVersion, unsigned int release);
    bool BackupFile(const std::string& destination, int backupFlag);

    // Copying a package's files into the product folder, and registering its servers.
    bool CopyFiles(const Plan& plan);
    bool CopyFile_S(const std::string& source, const std::string& destination);
    bool RegisterFiles(const Plan& plan);

    // One whole installation, and its settlement.
    HRESULT Install(const char* manifestText);
    // Settles an installation of the product folder that was interrupted: 0 when none was
    // pending, 1 when it was undone, 2 when its commit was finished, or a failure status when its
    // journal file cannot be read or is not to be trusted (then nothing is touched).
    HRESULT Recover();
    void Commit();
    void Abort();
    void DeleteFile_S(const std::string& path);

  private:
    friend class JournaledChange;

    std::string ProductExecutable() const;
    void ReportVersionFacts() const;
    HRESULT Refusal(std::ostream& log, const Plan& plan);
    HRESULT Transact(std::ostream& log, const Plan& plan);
    bool ReplaceFile(std::ostream& log, const PlannedCommand& command, std::string& replacedName);
    bool CopyWithRetries(std::ostream& log, const PlannedCommand& command, JournaledChange& change,
                         std::size_t placed);
    void Undo(std::ostream& log, const ActionRecord& record);
    void UndoPlacedFile(std::ostream& log, const ActionRecord& record);

    DurableJournal durable_;
    std::deque<ActionRecord> journal_;
    std::string productFolder_;
    bool folderSupport_ = false;
    // Sources whose digest was verified, held open so that nobody can change them until they
    // are copied.
    std::vector<UniqueHandle> verifiedSources_;
};

// One change to the product folder under the journal's protocol: its records are on disk before
// it is made, each is recorded as its part is made, and whatever was not made is marked settled
// when the change goes out of scope, so a crash at any point leaves a journal that tells the
// truth.
class JournaledChange {
  public:
    JournaledChange(CKiteInstaller& installer, std::vector<ActionRecord> records);
    ~JournaledChange();
    JournaledChange(const JournaledChange&) = delete;
    JournaledChange& operator=(const JournaledChange&) = delete;

    // False when the records could not be written: the change must not be made.
    bool announced() const { return announced_; }
    const ActionRecord& operator[](std::size_t index) const { return records_[index]; }
    void Made(std::size_t index);

  private:
    CKiteInstaller& installer_;
    std::vector<ActionRecord> records_;
    std::vector<bool> made_;
    bool announced_;
};

// Creates the empty force-apply marker, with its folder when that is missing.
bool CreateEmptyMarker(const std::string& marker);

// The size and last write time of a file, as a copy keeps them; empty when it cannot be read.
std::string FileIdentity(const std::string& path);

}  // namespace kite
