// The journal file of one installation: the whole plan, written and flushed once before the first
// change, and the commit mark, flushed before the first old file is deleted. Nothing between them
// is flushed: recovery reads from the disk how far each planned change got.
#pragma once

#include "common/Handles.h"
#include "installer/Plan.h"

#include <string>

namespace kite {

class JournalFile {
  public:
    // Creates the journal with the whole plan (and whether it made the CriticalFixes folder):
    // false, with no journal left, when it cannot be written and flushed.
    bool Begin(const std::string& productFolder, InstallPlan& plan);
    // Continues the journal of an interrupted installation, to delete it when it is settled.
    void Adopt(const std::string& productFolder, bool createdFolder);
    bool MarkCommit();
    // Deletes the file, and the CriticalFixes folder when the journal made it and it is empty.
    void Finish();

  private:
    bool Append(const std::string& text);

    UniqueHandle file_;
    std::string path_;
    std::string folder_;
    bool createdFolder_ = false;
    bool adopted_ = false;
};

}  // namespace kite
