// CKiteInstaller: the installer object of one installation. It owns the action journal, the
// product folder and the folder-support flag; Commit or Abort consumes the journal.
#pragma once

#include <windows.h>

#include <deque>
#include <string>

namespace kite {

// One entry of the action journal: what changed, and how Commit and Abort settle it.
struct ActionRecord {
    std::string source;
    std::string destination;
    int action;
};

class CKiteInstaller {
  public:
    // 1 when the network list manager reports internet connectivity, or cannot be asked.
    static int CheckInternetConnection();
    // Downloads "restorekite.ini" from the download server to the local path. E_FAIL when there
    // is no connection (nothing is attempted), else the download's result.
    static HRESULT SendRequestAndGetResponse(const char* destination);

    const std::deque<ActionRecord>& journal() const { return journal_; }
    const std::string& productFolder() const { return productFolder_; }
    bool folderSupport() const { return folderSupport_; }

  private:
    std::deque<ActionRecord> journal_;
    std::string productFolder_;
    bool folderSupport_ = false;
};

}  // namespace kite
