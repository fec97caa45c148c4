// The plan of one installation: every change it may make to the product folder, decided before
// the first one and written to the journal file in one write and one flush. Each change waits
// for its turn under names chosen here (the GUID name a replaced file waits under, the temporary
// names new bytes are written under), so that recovery after a kill or a power cut finds every
// path it must look at in the journal and reads from the disk how far each change got.
//
// The journal file is text, one line per entry, fields separated by tabs (paths hold no control
// characters):
//   F                the installation has folder support on
//   D                the journal created the CriticalFixes folder
//   <change> <target> <aside> <temp> <server type> <identity>
//                    one planned change, oldest first (see Change)
//   E                the plan is whole: changes may have begun
//   C                the commit began: from here on only forward
// Any other line means the file is not one this library wrote, and recovery refuses it.
#pragma once

#include "installer/CommandCheck.h"

#include <string>
#include <vector>

namespace kite {

constexpr const char* kJournalFileName = "kite_journal.dat";
// New bytes are written under the target's name with this ending, then renamed into place.
constexpr const char* kTempSuffix = ".kitenew";

enum class Change : char {
    Marker = 'M',    // target: the force-apply marker
    Backup = 'B',    // target: the backup copy; temp: where it is written first
    Aside = 'A',     // target: an installed file; aside: the GUID name it waits under
    Place = 'P',     // target: dst; aside: the old file's GUID name or empty; temp; identity
    Register = 'G',  // target: a placed server; identity: the file that was placed
};

struct WorkItem {
    Change change;
    std::string target;
    std::string aside;
    std::string temp;
    int serverType = 0;    // Aside: the replaced server, registered again on undo; Register
    std::string identity;  // Place, Register: size and write time of the file placed
};

// What the file system said of one command when the installation was planned.
struct CommandFacts {
    bool exists = false;        // dst is there: it is renamed aside, not just placed
    bool backupWanted = false;  // worth a backup copy, and the product keeps none yet
    std::string aside;          // "<dst folder>\{GUID}"; empty when no GUID could be made
    std::string identity;       // the source's size and write time, which the copy keeps
};

struct InstallPlan {
    std::vector<WorkItem> items;  // oldest first
    bool folderSupport = false;
    bool createdFolder = false;
    bool complete = false;  // without its end line no change was made
    bool committing = false;
    bool wellFormed = true;
};

// "<product folder>\CriticalFixes\..." paths of the installation's own files.
std::string MarkerPath(const std::string& productFolder);
std::string JournalPath(const std::string& productFolder);
std::string BackupPath(const std::string& productFolder, const std::string& dst);
// Backup copies are written under the command's number, since two commands may back up files of
// the same name.
std::string BackupTempPath(const std::string& productFolder, std::size_t command);

// Every change the commands may make, oldest first: the marker; per command its backup copy, its
// rename aside and its placement; then the registrations of the servers (types 1 to
// highestServerType).
std::vector<WorkItem> PlanChanges(const std::string& productFolder,
                                  const std::vector<PlannedCommand>& commands,
                                  const std::vector<CommandFacts>& facts, int highestServerType);

std::string JournalText(const InstallPlan& plan);
InstallPlan ReadJournalText(const std::string& text);

}  // namespace kite
