// One installation at a time per product folder: an installation or a recovery holds a named
// mutex derived from the folder from its recovery of an interrupted installation through its
// commit, so that no second host undoes from a stale journal, or deletes a marker, while the
// first goes on. The mutex is abandoned, not held, once its owner has died, and the next owner
// finds the journal that the dead one left.
#pragma once

#include "common/Handles.h"

#include <string>

namespace kite {

class FolderHold {
  public:
    FolderHold() = default;
    FolderHold(const FolderHold&) = delete;
    FolderHold& operator=(const FolderHold&) = delete;
    ~FolderHold();

    // Takes the hold without waiting; false when another owner has it. A thread that has it
    // already takes it again.
    bool Take(const std::string& productFolder);

  private:
    UniqueHandle mutex_;
    int taken_ = 0;
};

// "Global\KITEUpdate.Install.<hash>": the hash of the folder's long path in upper case, so that
// every spelling of one folder names one mutex.
std::string FolderHoldName(const std::string& longPath);

}  // namespace kite
