#include "installer/Verify.h"

#include "common/Sha256.h"

#include <cctype>

namespace kite {

namespace {

constexpr const char* kCommonKey = "Software\\Tolvix\\TallowmereCommon";
constexpr const char* kRequireDigestsValue = "KiteRequireDigests";

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace

std::string ReparseRefusal(const std::string& base, const std::string& path) {
    for (std::string::size_type at = base.size(); at != std::string::npos;) {
        const std::string::size_type next = path.find('\\', at + 1);
        const std::string step = path.substr(0, next);
        const DWORD attributes = ::GetFileAttributesA(step.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) return std::string();
        if (attributes & FILE_ATTRIBUTE_REPARSE_POINT)
            return "a junction or link stands at " + step;
        at = next;
    }
    return std::string();
}

HANDLE OpenSource(const std::string& path) {
    if (!ReparseRefusal(path.substr(0, 2), path.substr(0, path.rfind('\\'))).empty()) {
        ::SetLastError(ERROR_CANT_ACCESS_FILE);
        return INVALID_HANDLE_VALUE;
    }
    UniqueHandle file(
        ::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                      FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    // The attributes alone: the whole BY_HANDLE_FILE_INFORMATION makes Wine ask the volume for
    // its serial number, a hundred times as costly.
    FILE_ATTRIBUTE_TAG_INFO info;
    if (file &&
        (!::GetFileInformationByHandleEx(file.get(), FileAttributeTagInfo, &info, sizeof info) ||
         (info.FileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) != 0)) {
        ::SetLastError(ERROR_CANT_ACCESS_FILE);
        return INVALID_HANDLE_VALUE;
    }
    return file.release();
}

UINT DriveTypes::Of(const std::string& path) {
    const char letter = static_cast<char>(::toupper(static_cast<unsigned char>(path[0])));
    const auto known = known_.find(letter);
    if (known != known_.end()) return known->second;
    return known_[letter] = ::GetDriveTypeA(path.substr(0, 3).c_str());
}

std::string SourceRefusal(const PlannedCommand& command, DriveTypes& drives, UniqueHandle& held) {
    const std::string& src = command.src;
    if (drives.Of(src) == DRIVE_REMOTE) {
        return "src " + src + " is on a network drive";
    }
    held.reset(OpenSource(src));
    if (!held && ::GetLastError() == ERROR_CANT_ACCESS_FILE) {
        return "src " + src + " reaches through a link or is not a file";
    }
    return std::string();
}

bool PolicyIsOne(const char* name) {
    DWORD value = 0;
    DWORD bytes = sizeof value;
    return ::RegGetValueA(HKEY_LOCAL_MACHINE, kCommonKey, name, RRF_RT_REG_DWORD, nullptr, &value,
                          &bytes) == ERROR_SUCCESS &&
           value == 1;
}

bool DigestsRequired() { return PolicyIsOne(kRequireDigestsValue); }

std::string DigestRefusal(const PlannedCommand& command, HANDLE held) {
    if (!command.hasDigest) return "it carries no sha256 and the policy requires one";
    if (!IsSha256Text(command.sha256)) {
        return "its sha256 \"" + command.sha256 + "\" is not 64 hexadecimal digits";
    }
    const DWORD openError = ::GetLastError();
    const std::string actual = held != nullptr ? Sha256OfFile(held) : std::string();
    if (actual.empty()) {
        return "its source " + command.src + " cannot be read, GetLastError " +
               std::to_string(held != nullptr ? ::GetLastError() : openError);
    }
    if (actual != Lower(command.sha256)) {
        return "sha256 of " + command.src + " is " + actual + ", expected " + Lower(command.sha256);
    }
    return std::string();
}

}  // namespace kite
