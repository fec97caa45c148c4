// CKiteInstaller: the installer object of one installation. It owns the action journal, the
// product folder and the folder-support flag; Commit or Abort consumes the journal.
#pragma once

#include "installer/DurableJournal.h"
#include "installer/Manifest.h"

#include <windows.h>

#include <deque>
#include <ostream>
#include <string>

namespace kite {

// One entry of the action journal: what changed, and how Commit and Abort settle it.
struct ActionRecord {
    std::string source;
    std::string destination;
    int action;
};

// Action codes of the journal.
enum ActionCode : int {
    kRenamedAside = 1,     // source renamed to the GUID path in destination
    kForceMarker = 2,      // source is the force-apply marker
    kFilePlaced = 3,       // source is a newly placed file
    kRegisterAgain = 4,    // source was a registered server; destination holds its type
    kUnregisterAgain = 5,  // source was registered by this installation; destination its type
};

class CKiteInstaller {
  public:
    // The whole fixed-file-information block of the file at path: S_OK or E_FAIL.
    static HRESULT GetFileVersion(const char* path, VS_FIXEDFILEINFO& info);
    // The major and build components of the file's version (build not split into level and
    // slipstream): S_OK or the failure status of GetFileVersion.
    static HRESULT GetModuleVersion(const char* path, DWORD& major, DWORD& build);

    const std::deque<ActionRecord>& journal() const { return journal_; }
    const std::string& productFolder() const { return productFolder_; }
    bool folderSupport() const { return folderSupport_; }
    void SetProductFolder(std::string folder) { productFolder_ = std::move(folder); }
    void SetFolderSupport(bool on) { folderSupport_ = on; }

    // Journal and backups.
    void RecordAction(const std::string& source, const std::string& destination, int action);
    void RecordComRegistration(const std::string& path, unsigned int reg, unsigned int serverType);
    int TakeBackup(unsigned int majorVersion, unsigned int release);
    int BackupFile(const std::string& destination, int backupFlag);

    // Copying a package's files into the product folder.
    int CopyFiles(const ptree& commands);
    int CopyFile_S(const std::string& source, const std::string& destination);

    // One whole installation, and its settlement.
    HRESULT Install(const char* manifestText);
    // Settles an installation of the product folder that was interrupted: 0 when none was
    // pending, 1 when it was undone, 2 when its commit was finished, or a failure status when its
    // journal file cannot be read.
    HRESULT Recover();
    void Commit();
    void Abort();
    void DeleteFile_S(const std::string& path);

    // Registering the package's component servers.
    int RegisterFiles(const ptree& commands);
    HRESULT RegisterServer(const std::string& path, int reg, int serverType);

  private:
    std::string ProductExecutable() const;
    void ReportVersionFacts() const;
    void Undo(std::ostream& log, const ActionRecord& record);
    void Forward(const ActionRecord& record);

  public:
    // The write-ahead copy of the journal while an installation runs.
    DurableJournal durable;

  private:
    std::deque<ActionRecord> journal_;
    std::string productFolder_;
    bool folderSupport_ = false;
};

}  // namespace kite
