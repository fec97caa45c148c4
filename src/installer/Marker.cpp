// The force-apply marker: it exists from the moment the plan is on disk until the very end of the
// commit, so a host that finds an installation cut short forces the fix, and the next
// installation settles the interrupted one first. An undo leaves it in place.
#include "installer/KiteInstaller.h"

#include "common/Platform.h"
#include "common/Text.h"

namespace kite {

// The marker's folder may not exist yet (no backup copy was made); without it the order to
// force the fix next time would be lost.
bool CreateEmptyMarker(const std::string& marker) {
    const std::string::size_type slash = marker.rfind('\\');
    Platform().SHCreateDirectory(nullptr,
                                 WidenText(marker.substr(0, slash), CP_THREAD_ACP).c_str());
    UniqueHandle file(Platform().CreateFileA(marker.c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                             nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                             nullptr));
    return file.valid();
}

bool CKiteInstaller::ArmMarker() {
    const std::string marker = MarkerPath(productFolder_);
    RecordAction(ActionRecord{marker, "", Action::MarkerArmed, 0});
    return CreateEmptyMarker(marker);
}

void CKiteInstaller::UndoMarker(std::ostream& log, const std::string& marker) {
    log << "creating: " << marker << std::endl;
    CreateEmptyMarker(marker);
}

}  // namespace kite
