// The records of the action journal: what one installation changed in the product folder, and
// how Commit and Abort settle each change.
#pragma once

#include <string>

namespace kite {

// The journal's action codes; the numbers are those the journal file and the log show.
enum class Action : int {
    RenamedAside = 1,     // source was renamed to the GUID path in destination
    ForceMarker = 2,      // source is the force-apply marker
    FilePlaced = 3,       // source is a newly placed file
    RegisterAgain = 4,    // source was a registered server that this installation replaced
    UnregisterAgain = 5,  // source was registered by this installation
};

struct ActionRecord {
    std::string source;
    std::string destination;  // the GUID path of a renamed-aside file; empty otherwise
    Action action;
    int serverType = 0;    // of the two registration records
    std::string identity;  // of a placed file: the size and write time it was copied with
};

inline bool IsRegistration(Action action) {
    return action == Action::RegisterAgain || action == Action::UnregisterAgain;
}

// The second value of a record as the log shows it: the GUID path, or a server's type.
inline std::string ShownDestination(const ActionRecord& record) {
    return IsRegistration(record.action) ? std::to_string(record.serverType) : record.destination;
}

inline bool SameRecord(const ActionRecord& a, const ActionRecord& b) {
    return a.action == b.action && a.source == b.source && a.destination == b.destination &&
           a.serverType == b.serverType;
}

}  // namespace kite
