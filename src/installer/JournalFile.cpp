#include "installer/JournalFile.h"

#include "common/Platform.h"

#include <io.h>

namespace kite {

bool JournalFile::Begin(const std::string& productFolder, InstallPlan& plan) {
    Adopt(productFolder, false);
    // Only the CriticalFixes folder itself: a product folder that does not exist has nothing to
    // protect, and is not to be made here.
    createdFolder_ =
        _access(folder_.c_str(), 0) != 0 && ::CreateDirectoryA(folder_.c_str(), nullptr);
    plan.createdFolder = createdFolder_;
    file_.reset(Platform().CreateFileA(path_.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                       CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file_.valid() && Append(JournalText(plan))) return true;
    const DWORD error = ::GetLastError();
    Finish();
    ::SetLastError(error);
    return false;
}

void JournalFile::Adopt(const std::string& productFolder, bool createdFolder) {
    path_ = JournalPath(productFolder);
    folder_ = path_.substr(0, path_.rfind('\\'));
    createdFolder_ = createdFolder;
    adopted_ = true;
}

bool JournalFile::MarkCommit() { return Append("C\n"); }

bool JournalFile::Append(const std::string& text) {
    if (!file_.valid()) return false;
    DWORD written = 0;
    return Platform().WriteFile(file_.get(), text.data(), static_cast<DWORD>(text.size()), &written,
                                nullptr) &&
           written == text.size() && Platform().FlushFileBuffers(file_.get());
}

void JournalFile::Finish() {
    if (!adopted_) return;
    adopted_ = false;
    file_.reset();
    Platform().DeleteFileA(path_.c_str());
    if (createdFolder_) ::RemoveDirectoryA(folder_.c_str());
}

}  // namespace kite
