// The action journal lives in memory for one installation; a host that dies half-way would leave
// renamed-aside files and no marker, with nothing that can undo them. So while an installation
// runs, its journal is also written ahead to a file in the product's "CriticalFixes" folder:
// each record is on disk, flushed, before the change it describes is made, and a change that
// does not happen, or is undone, is marked settled. Recovery undoes what is still pending, newest
// first, as Abort would, or finishes a commit that had begun.
//
// The file is text, one line per entry, fields separated by tabs (paths hold no control
// characters):
//   F                      the installation has folder support on
//   D                      the journal created the CriticalFixes folder
//   R <code> <src> <dst>   a record, written before its change
//   S <code> <src> <dst>   the newest pending record equal to it is settled (the change did not
//                          happen, or it was undone)
//   C                      the commit began: from here on only forward
// A line without its line end was cut short by a crash before its change; it is ignored.
// A replaced file's rename aside and its copy are announced in one write (one flush instead of
// two); a crash before the rename then leaves the copy's record pending while the old file is
// still under its own name, and recovery drops that record (see DropCopiesNotBegun).
#pragma once

#include "common/Handles.h"

#include <functional>
#include <string>
#include <vector>

namespace kite {

struct ActionRecord;

constexpr const char* kJournalFileName = "kite_journal.dat";

// What a journal file says is still to settle.
struct PendingJournal {
    std::vector<ActionRecord> records;  // oldest first
    bool folderSupport = false;
    bool createdFolder = false;
    bool committing = false;
};

PendingJournal ReadJournalText(const std::string& text);
// Takes out each pending copy record that follows the rename aside of the same file when nothing
// is under the GUID name: the rename never happened, and the copy's undo would delete the old
// file. Returns what it took out, for the journal to mark settled before any undo step: once the
// rename's own record is settled, a later recovery could no longer tell.
std::vector<ActionRecord> DropCopiesNotBegun(std::vector<ActionRecord>& records,
                                             const std::function<bool(const std::string&)>& exists);
std::string JournalLine(char kind, const ActionRecord& record);

// "<product folder>\CriticalFixes\kite_journal.dat".
std::string JournalPath(const std::string& productFolder);

class DurableJournal {
  public:
    // Starts a new journal file; false (and no journal) when it cannot be created.
    bool Begin(const std::string& productFolder, bool folderSupport);
    // Continues the journal file of an interrupted installation.
    bool Resume(const std::string& productFolder, bool createdFolder);
    bool active() const { return file_.valid(); }

    void Intend(const ActionRecord& record);
    // Changes made one after the other, announced in one write and one flush.
    void Intend(const std::vector<ActionRecord>& records);
    void Settled(const ActionRecord& record) { Append(JournalLine('S', record)); }
    void Committing() { Append("C\n"); }
    // Deletes the file, and the CriticalFixes folder when the journal made it and it is empty.
    void Finish();

  private:
    bool Open(const std::string& productFolder, DWORD disposition);
    void Append(const std::string& line);

    UniqueHandle file_;
    std::string path_;
    std::string folder_;
    bool createdFolder_ = false;
};

}  // namespace kite
