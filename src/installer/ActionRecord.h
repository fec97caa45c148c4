// The records of the action journal: what one installation has changed in the product folder so
// far, in the order it happened. Abort undoes them newest first; Commit throws away what was kept
// only for an undo.
#pragma once

#include <string>

namespace kite {

// What happened; the numbers are those the log shows.
enum class Action : int {
    RenamedAside = 1,      // source was renamed to the GUID path in destination
    MarkerArmed = 2,       // source is the force-apply marker
    FilePlaced = 3,        // source is a newly placed file
    ServerReplaced = 4,    // source was a registered server, and it was renamed aside
    ServerRegistered = 5,  // source was registered by this installation
};

struct ActionRecord {
    std::string source;
    std::string destination;  // the GUID path of a renamed-aside file; empty otherwise
    Action action;
    int serverType = 0;  // of the two server records
};

inline bool IsServerRecord(Action action) {
    return action == Action::ServerReplaced || action == Action::ServerRegistered;
}

// The second value of a record as the log shows it: the GUID path, or a server's type.
inline std::string ShownDestination(const ActionRecord& record) {
    return IsServerRecord(record.action) ? std::to_string(record.serverType) : record.destination;
}

}  // namespace kite
