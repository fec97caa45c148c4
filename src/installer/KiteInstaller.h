// CKiteInstaller: the installer object of one installation, and the engine that owns its order.
//
// An installation is decided before it is applied: the manifest becomes a list of commands; every
// command is checked and its source opened and held (so the bytes checked are the bytes copied);
// the plan of every change (Plan.h) is written to the journal file and flushed once. Then the
// changes run in the manifest's order, each recorded in the action journal as it is made; the
// placed files are made durable; the commit mark is flushed; only then do the old files go. Any
// failure undoes the action journal newest first. Each kind of change keeps its do, its undo and
// its recovery together in a file of its own: Marker.cpp, Backup.cpp, MoveAside.cpp,
// CopyFiles.cpp (placing a file), RegisterFiles.cpp.
//
// Steps answer true for success and write their own log line where they fail.
#pragma once

#include "common/Handles.h"
#include "installer/ActionRecord.h"
#include "installer/FolderHold.h"
#include "installer/JournalFile.h"
#include "installer/Manifest.h"
#include "installer/Plan.h"

#include <windows.h>

#include <deque>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace kite {

// HRESULT_FROM_WIN32(ERROR_BUSY): another installation of the folder is running.
constexpr HRESULT kFolderBusy = static_cast<HRESULT>(0x800700AAL);

// One command while it is installed: what the manifest says, what the plan found, the source
// held open since it was checked, and the files written for it, open until they are durable.
struct CommandState {
    std::size_t index = 0;
    PlannedCommand command;
    CommandFacts facts;
    UniqueHandle source;
    UniqueHandle placed;
    UniqueHandle backup;
    bool backupMade = false;
};

// Where a copy's bytes come from and go: the source held since it was checked (or none: it is
// opened now), the temporary name they are written under, and whether they then take the
// destination's name (a backup copy takes its name only once it is durable).
struct CopyJob {
    HANDLE from;
    std::string temp;
    bool placeIt;
    UniqueHandle& written;    // receives the written file, open until it is flushed
    bool makeFolder = false;  // the destination's folder may not exist yet
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
    void SetProductFolder(std::string folder) { productFolder_ = std::move(folder); }
    void SetFolderSupport(bool on) { folderSupport_ = on; }
    // The commands of an installation planned elsewhere, for steps called on their own.
    void SetCommands(const std::vector<PlannedCommand>& commands) {
        commands_.resize(commands.size());
        for (std::size_t i = 0; i < commands.size(); ++i) commands_[i].command = commands[i];
    }

    // The action journal.
    void RecordAction(const ActionRecord& record);
    void RecordComRegistration(const std::string& path, unsigned int reg, unsigned int serverType);

    // The changes, in the order an installation makes them.
    int TakeBackup(unsigned int majorVersion, unsigned int release);
    bool BackupFile(CommandState& state, int backupFlag);
    bool CopyFiles();
    bool CopyFile_S(const std::string& source, const std::string& destination, const CopyJob& job);
    bool RegisterFiles();

    // One whole installation, and its settlement.
    HRESULT Install(const char* manifestText);
    // Every refusal an installation of the manifest would meet before its first change (not only
    // the first), without changing anything: what a package author checks before shipping.
    std::vector<std::string> CheckPackage(const char* manifestText);
    // Settles an installation of the product folder that was interrupted: 0 when none was
    // pending, 1 when it was undone, 2 when its commit was finished, kFolderBusy while another
    // installation of the folder runs, or a failure status when its journal file cannot be read
    // or is not to be trusted (then nothing is touched).
    HRESULT Recover();
    void Commit();
    void Abort();
    void DeleteFile_S(const std::string& path);

  private:
    // Checks (Checks.cpp): every one that can fail runs before the first change.
    HRESULT Refusal(std::ostream& log, const std::vector<PlannedCommand>& commands);
    std::vector<Refused> Refusals(const std::vector<PlannedCommand>& commands, bool all);
    std::string FolderRefusalText(const std::string& reason) const;
    std::string CommandRefusalText(std::size_t index, const std::string& reason) const;
    HRESULT RefuseFolder(std::ostream& log, const std::string& reason, HRESULT status);
    HRESULT RefuseCommand(std::ostream& log, std::size_t index, const std::string& reason,
                          HRESULT status);
    HRESULT Survey(std::ostream& log);
    HRESULT SettlePendingRestores(std::ostream& log);
    std::string ProductExecutable() const;
    void ReportVersionFacts() const;

    // The engine (Install.cpp).
    HRESULT Prepare(std::ostream& log, const std::vector<PlannedCommand>& commands);
    HRESULT Transact(std::ostream& log);
    bool MakeDurable(std::ostream& log, bool placedFiles);
    HRESULT RecoverHeld(std::ostream& log);
    void Undo(std::ostream& log, const ActionRecord& record);
    void Recover(std::ostream& log, const WorkItem& item, bool committing);

    // Each kind of change: its do, the undo of its records, and its recovery from the disk.
    bool ArmMarker();
    static void UndoMarker(std::ostream& log, const std::string& marker);
    bool KeepBackup(CommandState& state);
    static void RecoverBackup(const WorkItem& item, bool committing);
    bool MoveAside(std::ostream& log, const CommandState& state, std::string& replacedName);
    static void UndoMoveAside(std::ostream& log, const ActionRecord& record);
    void RecoverAside(std::ostream& log, const WorkItem& item, bool committing);
    bool CopyWithRetries(std::ostream& log, CommandState& state);
    bool CopyThroughTemp(const std::string& source, const std::string& destination,
                         const CopyJob& job);
    static void UndoPlacedFile(const std::string& path, const std::string& aside);
    static void RecoverPlacedFile(const WorkItem& item, bool committing);
    void RecoverRegistration(const WorkItem& item, bool committing);

    std::deque<ActionRecord> journal_;
    std::string productFolder_;
    bool folderSupport_ = false;
    FolderHold hold_;
    std::vector<CommandState> commands_;
    InstallPlan plan_;
    JournalFile journalFile_;
    std::unique_ptr<char[]> copyBuffer_;
};

// Creates the empty force-apply marker, with its folder when that is missing.
bool CreateEmptyMarker(const std::string& marker);

// Reports "Something went wrong before invoking CopyFile_S" for the file; false.
bool FailedBeforeCopy(std::ostream& log, const std::string& dst);

// The size and last write time of a file, as the copy keeps them; empty when it cannot be read.
std::string FileIdentity(const std::string& path);
std::string FileIdentity(HANDLE file);

}  // namespace kite
