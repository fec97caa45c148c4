// Renames the system makes at the next restart (PendingFileRenameOperations): an undo that could
// not delete a new file held open schedules the old one back over it. Such a restore would revert
// a later installation that committed before the restart, so the next installation of that file
// makes it first, now, and takes it out of the list.
#pragma once

#include <string>
#include <vector>

namespace kite {

// One pair as stored: "\??\<path>", and "!\??\<path>" to replace, or "" to delete.
struct PendingRename {
    std::string source;
    std::string target;
};

std::vector<PendingRename> ReadPendingRenames(const std::string& multiString);
std::string PendingRenamesText(const std::vector<PendingRename>& renames);
// The path a stored name stands for.
std::string PendingPath(const std::string& stored);

}  // namespace kite
