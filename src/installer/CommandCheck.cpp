#include "installer/CommandCheck.h"

#include "common/Text.h"

#include <cctype>
#include <cstring>
#include <vector>

namespace kite {

namespace {

// "\{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}": the name a replaced file waits under.
constexpr std::size_t kAsideNameChars = 39;
// ".kitenew": the ending new bytes are written under before they take their name.
constexpr std::size_t kTempSuffixChars = 8;
constexpr const char* kCriticalFixes = "\\CriticalFixes\\";
// The longest name the installation keeps in the CriticalFixes folder.
constexpr const char* kLongestOwnName = "force_apply_kite.dat";

}  // namespace

std::string FoldedPath(const std::string& path) {
    std::string folded = path;
    for (char& c : folded) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return folded;
}

bool SamePath(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

namespace {

// CON, PRN, AUX, NUL, COM1-9 and LPT1-9 name devices in every folder, with any extension.
bool IsDeviceName(const std::string& step) {
    std::string base = step.substr(0, step.find('.'));
    while (!base.empty() && base.back() == ' ') base.pop_back();
    for (char& c : base) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (base == "CON" || base == "PRN" || base == "AUX" || base == "NUL") return true;
    return base.size() == 4 && (base.compare(0, 3, "COM") == 0 || base.compare(0, 3, "LPT") == 0) &&
           base[3] >= '1' && base[3] <= '9';
}

// Why one step of a path is not a plain name that the file system keeps as written.
const char* StepRefusal(const std::string& step) {
    if (step.empty()) return "an empty path step";
    if (step == "." || step == "..") return "a relative path step";
    if (step.back() == '.' || step.back() == ' ') return "a name ending in a dot or blank";
    for (const char c : step) {
        if (static_cast<unsigned char>(c) < 32 || std::strchr("/:*?\"<>|", c) != nullptr) {
            return "a stream name or a character names may not hold";
        }
    }
    if (IsDeviceName(step)) return "a device name";
    return nullptr;
}

bool HasDrive(const std::string& path) {
    return path.size() >= 3 && std::isalpha(static_cast<unsigned char>(path[0])) &&
           path[1] == ':' && path[2] == '\\';
}

// Why the steps after a drive ("X:\") are not all plain names.
std::string StepsRefusal(const std::string& path) {
    for (const std::string& step : SplitText(path.substr(3), '\\')) {
        if (const char* reason = StepRefusal(step)) return reason;
    }
    return std::string();
}

}  // namespace

std::string ProductFolderRefusal(const std::string& appdir) {
    if (!HasDrive(appdir)) return "the product folder is not an absolute path on a drive";
    const std::string steps = StepsRefusal(appdir);
    if (!steps.empty()) return "the product folder holds " + steps;
    if (appdir.size() + std::strlen(kCriticalFixes) + std::strlen(kLongestOwnName) > kLongestPath) {
        return "the product folder is too long";
    }
    return std::string();
}

std::string PathInsideRefusal(const std::string& appdir, const std::string& path) {
    if (path.size() <= appdir.size() + 1 || !SamePath(path.substr(0, appdir.size()), appdir) ||
        path[appdir.size()] != '\\') {
        return "not a file inside the product folder";
    }
    const std::string steps = StepsRefusal(path);
    return steps.empty() ? steps : "a path with " + steps;
}

std::string CommandRefusal(const std::string& appdir, const PlannedCommand& command) {
    const std::string& dst = command.dst;
    const std::string inside = PathInsideRefusal(appdir, dst);
    if (!inside.empty()) return "dst is " + inside;
    // The marker, the journal and the backup copies live there; a package may not replace them.
    const std::string own = appdir + "\\CriticalFixes\\";
    if (dst.size() > own.size() && SamePath(dst.substr(0, own.size()), own)) {
        return "dst is in the installation's own CriticalFixes folder";
    }
    const std::string::size_type slash = dst.rfind('\\');
    const std::size_t name = dst.size() - slash - 1;
    if (slash + kAsideNameChars > kLongestPath || dst.size() + kTempSuffixChars > kLongestPath ||
        appdir.size() + std::strlen(kCriticalFixes) + name > kLongestPath) {
        return "dst is too long for its name aside, its temporary name or its backup copy";
    }
    const std::string& src = command.src;
    if (!HasDrive(src)) return "src is not a local path on a drive";
    if (src.size() > kLongestPath) return "src is too long";
    for (const std::string& step : SplitText(src.substr(3), '\\')) {
        if (IsDeviceName(step)) return "src names a device";
    }
    return std::string();
}

}  // namespace kite
