// The release level from the product's version resources and from its registry key.
#include "exports/ProductDetection.h"

#include "KITEUpdate.h"

#include "common/BoundedFormat.h"
#include "common/Handles.h"
#include "common/Text.h"
#include "common/VersionResource.h"
#include "log/ScopeLog.h"

#include <io.h>

#include <cstring>
#include <optional>
#include <stdexcept>

namespace kite {

namespace {

// The "TWVersion" text of the version key, or none when the key cannot be opened.
std::optional<std::string> ReadTwVersion(unsigned int majorVersion, const char* suffix) {
    UniqueRegKey key;
    if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, TwVersionKey(majorVersion, suffix).c_str(), 0, KEY_READ,
                        key.put()) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    // The query's answer is not tested: a missing value or a longer one leaves the zeroed buffer
    // empty or undefined, and the text never runs past the buffer.
    char value[20] = {};
    DWORD bytes = sizeof value;
    ::RegQueryValueExA(key.get(), kVersionValue, nullptr, nullptr, reinterpret_cast<BYTE*>(value),
                       &bytes);
    return std::string(value, ::strnlen(value, sizeof value));
}

}  // namespace

int GetSlipStreamFromFile(const char* folder, const char* fileName) {
    ScopeLog log("GetSlipStreamFromFile");
    if (folder == nullptr || fileName == nullptr) {
        log << "Invalid argument: folder or file name is null" << std::endl;
        return -1;
    }
    char path[MAX_PATH];
    FormatBounded(path, "%s\\%s", folder, fileName);
    VS_FIXEDFILEINFO info = {};
    const VersionReadResult read = ReadFixedFileInfo(path, info);
    log << "GetFileVersion() returned " << read.error << std::endl;
    if (read.failedStep != VersionReadStep::kNone) return -1;
    const FileVersion version = FileVersionOf(info);
    const ReleaseOfBuild release = SplitBuild(version.build);
    // "Level" and "SlipStream" run together: readers of the log know the line as it is.
    log << path << " : " << version.major << "." << version.minor << "." << version.build << "."
        << version.revision << ". Level: " << release.level << "SlipStream: " << release.slipstream
        << std::endl;
    return release.slipstream;
}

std::string TwVersionKey(unsigned int majorVersion, const std::string& suffix) {
    return "SOFTWARE\\Tolvix\\Tallowmere\\" + std::to_string(majorVersion) + ".0\\" + suffix;
}

int SlipstreamOfVersionText(const std::string& text) { return TextToInt(text.substr(3, 3)); }

}  // namespace kite

using kite::ScopeLog;

extern "C" int GetTwSlipstream2(const char* installFolder) {
    try {
        if (installFolder == nullptr) {
            ScopeLog log("GetTwSlipstream2");
            log << "Invalid argument: install folder is null" << std::endl;
            return -1;
        }
        char mainProgram[MAX_PATH];
        kite::FormatBounded(mainProgram, "%s\\%s", installFolder, kite::kMainProgram);
        const char* program =
            _access(mainProgram, 0) == 0 ? kite::kMainProgram : kite::kMainProgram32;
        // All three are read, so the log shows every file's version even after a mismatch.
        const int programLevel = kite::GetSlipStreamFromFile(installFolder, program);
        const int coreLevel = kite::GetSlipStreamFromFile(installFolder, kite::kCoreLibrary);
        const int featureLevel = kite::GetSlipStreamFromFile(installFolder, kite::kFeatureLibrary);
        // A partly patched installation has no level of its own.
        if (programLevel != coreLevel || programLevel != featureLevel) return -1;
        return programLevel;
    } catch (...) {
        return -1;
    }
}

extern "C" int GetTwSlipstream(unsigned int majorVersion, const char* suffix) {
    try {
        ScopeLog log("GetTwSlipstream");
        if (suffix == nullptr) {
            log << "Invalid argument: suffix is null" << std::endl;
            return -1;
        }
        const std::optional<std::string> text = kite::ReadTwVersion(majorVersion, suffix);
        if (!text) return -1;
        int slipstream = -1;
        try {
            slipstream = kite::SlipstreamOfVersionText(*text);
        } catch (const std::out_of_range&) {
            // No exception may reach the host: a text too short to hold a level answers -1.
            log << "TW Version: " << *text << ", too short for a SlipStream" << std::endl;
            return -1;
        }
        log << "TW Version: " << *text << ", SlipStream: " << slipstream << std::endl;
        return slipstream;
    } catch (...) {
        return -1;
    }
}
