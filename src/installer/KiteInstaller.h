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
    // The whole fixed-file-information block of the file at path: S_OK or E_FAIL.
    static HRESULT GetFileVersion(const char* path, VS_FIXEDFILEINFO& info);
    // The major and build components of the file's version (build not split into level and
    // slipstream): S_OK or the failure status of GetFileVersion.
    static HRESULT GetModuleVersion(const char* path, DWORD& major, DWORD& build);
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
