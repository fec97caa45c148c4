// The action journal lives in memory for one installation; a host that dies half-way would leave
// renamed-aside files with nothing that can undo them. So while an installation runs, its
// journal is also written ahead to a file in the product's "CriticalFixes" folder: each record is
// on disk, flushed, before the change it describes is made, and a change that does not happen, or
// is undone, is marked settled. Recovery undoes what is still pending, newest first, as Abort
// would, or finishes a commit that had begun.
//
// The file is text, one line per entry, fields separated by tabs (paths hold no control
// characters):
//   F                                     the installation has folder support on
//   D                                     the journal created the CriticalFixes folder
//   R <code> <src> <dst> <type> <identity>  a record, written before its change
//   S <code> <src> <dst> <type> <identity>  the newest pending record equal to it is settled
//   C                                     the commit began: from here on only forward
// A last line without its line end was cut short by a crash before its change; it is ignored.
// Any other line, or a settlement of nothing, means the file is not one this library wrote, and
// recovery refuses to act on it.
#pragma once

#include "common/Handles.h"
#include "installer/ActionRecord.h"

#include <functional>
#include <string>
#include <vector>

namespace kite {

constexpr const char* kJournalFileName = "kite_journal.dat";

// What a journal file says is still to settle.
struct PendingJournal {
    bool wellFormed = true;
    std::vector<ActionRecord> records;  // oldest first
    bool folderSupport = false;
    bool createdFolder = false;
    bool committing = false;
};

PendingJournal ReadJournalText(const std::string& text);
std::string JournalLine(char kind, const ActionRecord& record);
// Takes out each pending copy record that follows the rename aside of the same file when nothing
// is under the GUID name: the rename never happened, and the copy's undo would delete the old
// file. Returns what it took out, for the journal to mark settled before any undo step: once the
// rename's own record is settled, a later recovery could no longer tell.
std::vector<ActionRecord> DropCopiesNotBegun(std::vector<ActionRecord>& records,
                                             const std::function<bool(const std::string&)>& exists);

// "<product folder>\CriticalFixes\kite_journal.dat".
std::string JournalPath(const std::string& productFolder);

class DurableJournal {
  public:
    // Starts a new journal file; false (and no journal) when it cannot be created or written.
    bool Begin(const std::string& productFolder, bool folderSupport);
    // Continues the journal file of an interrupted installation.
    bool Resume(const std::string& productFolder, bool createdFolder);

    // Changes made one after the other, announced in one write and one flush. False when the
    // write or the flush failed: the changes must not be made.
    bool Intend(const std::vector<ActionRecord>& records);
    bool Settle(const std::vector<ActionRecord>& records);
    bool Committing() { return Append("C\n"); }
    // Deletes the file, and the CriticalFixes folder when the journal made it and it is empty.
    void Finish();

  private:
    bool Open(const std::string& productFolder, DWORD disposition);
    bool Append(const std::string& lines);

    UniqueHandle file_;
    std::string path_;
    std::string folder_;
    bool createdFolder_ = false;
};

}  // namespace kite
