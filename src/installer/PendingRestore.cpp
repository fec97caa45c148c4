#include "installer/PendingRestore.h"

#include "common/Handles.h"
#include "installer/Events.h"
#include "installer/KiteInstaller.h"
#include "common/Platform.h"

namespace kite {

namespace {

constexpr const char* kSessionManagerKey = "System\\CurrentControlSet\\Control\\Session Manager";
constexpr const char* kPendingValue = "PendingFileRenameOperations";

std::string ReadPendingValue() {
    DWORD bytes = 0;
    if (::RegGetValueA(HKEY_LOCAL_MACHINE, kSessionManagerKey, kPendingValue, RRF_RT_REG_MULTI_SZ,
                       nullptr, nullptr, &bytes) != ERROR_SUCCESS) {
        return std::string();
    }
    std::string value(bytes, '\0');
    if (::RegGetValueA(HKEY_LOCAL_MACHINE, kSessionManagerKey, kPendingValue, RRF_RT_REG_MULTI_SZ,
                       nullptr, &value[0], &bytes) != ERROR_SUCCESS) {
        return std::string();
    }
    value.resize(bytes);
    return value;
}

bool WritePendingValue(const std::vector<PendingRename>& renames) {
    UniqueRegKey key;
    if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, kSessionManagerKey, 0, KEY_SET_VALUE, key.put()) !=
        ERROR_SUCCESS) {
        return false;
    }
    if (renames.empty()) return ::RegDeleteValueA(key.get(), kPendingValue) == ERROR_SUCCESS;
    const std::string text = PendingRenamesText(renames);
    return ::RegSetValueExA(key.get(), kPendingValue, 0, REG_MULTI_SZ,
                            reinterpret_cast<const BYTE*>(text.data()),
                            static_cast<DWORD>(text.size())) == ERROR_SUCCESS;
}

}  // namespace

std::vector<PendingRename> ReadPendingRenames(const std::string& multiString) {
    std::vector<std::string> names;
    for (std::string::size_type start = 0, end;
         start < multiString.size() && (end = multiString.find('\0', start)) != std::string::npos;
         start = end + 1) {
        names.push_back(multiString.substr(start, end - start));
    }
    // The list ends with an empty string, which is no pair's source.
    if (names.size() % 2 == 1 && names.back().empty()) names.pop_back();
    std::vector<PendingRename> renames;
    for (std::size_t i = 0; i + 1 < names.size(); i += 2)
        renames.push_back({names[i], names[i + 1]});
    return renames;
}

std::string PendingRenamesText(const std::vector<PendingRename>& renames) {
    std::string text;
    for (const PendingRename& rename : renames) {
        text += rename.source + '\0' + rename.target + '\0';
    }
    return text + '\0';
}

std::string PendingPath(const std::string& stored) {
    std::string path = stored.rfind('!', 0) == 0 ? stored.substr(1) : stored;
    return path.rfind("\\??\\", 0) == 0 ? path.substr(4) : path;
}

// Every pending rename that would change a file of this installation at the restart (a restore
// over it, a deletion of it or of the marker) is settled now: a restore is made, a deletion is
// dropped. One that cannot be made now (the new file is still held open) refuses the
// installation, with the list as it was.
HRESULT CKiteInstaller::SettlePendingRestores(std::ostream& log) {
    const std::vector<PendingRename> renames = ReadPendingRenames(ReadPendingValue());
    const std::string marker = MarkerPath(productFolder_);
    std::vector<PendingRename> kept;
    for (const PendingRename& rename : renames) {
        const std::string source = PendingPath(rename.source);
        const std::string target = PendingPath(rename.target);
        bool ours = SamePath(source, marker);
        for (const CommandState& state : commands_) {
            ours = ours || SamePath(state.command.dst, rename.target.empty() ? source : target);
        }
        // A restore of a file from elsewhere is not this library's: it is dropped, not made.
        const bool restore =
            !rename.target.empty() && PathInsideRefusal(productFolder_, source).empty();
        if (!ours) {
            kept.push_back(rename);
        } else if (restore && !Platform().MoveFileExA(source.c_str(), target.c_str(),
                                                      MOVEFILE_REPLACE_EXISTING)) {
            TraceAndReport(log,
                           "KITE: CKiteInstaller::Install refused the product folder " +
                               productFolder_ + ": " + source + " is to replace " + target +
                               " at restart and cannot replace it now, GetLastError " +
                               std::to_string(::GetLastError()),
                           true);
            return E_FAIL;
        }
    }
    if (kept.size() != renames.size()) WritePendingValue(kept);
    return S_OK;
}

}  // namespace kite
