#include "common/VersionResource.h"

#include "common/Handles.h"
#include "common/Platform.h"

#include <cstring>

namespace kite {

namespace {

// No file has a longer path, even with the long-path prefix; Wine's version reader crashes on a
// narrow path that does not fit a counted wide string instead of failing.
constexpr std::size_t kLongestPathChars = 32767;

}  // namespace

VersionReadResult ReadFixedFileInfo(const char* path, VS_FIXEDFILEINFO& info) {
    if (std::strlen(path) >= kLongestPathChars) {
        return {VersionReadStep::kSize, ERROR_FILENAME_EXCED_RANGE};
    }
    DWORD handle = 0;
    const DWORD size = Platform().GetFileVersionInfoSizeA(path, &handle);
    if (size == 0) return {VersionReadStep::kSize, ::GetLastError()};
    // One byte more than the platform asked for, offered in full to the reader.
    UniqueBytes data(new BYTE[size + 1]());
    if (!Platform().GetFileVersionInfoA(path, 0, size + 1, data.get())) {
        return {VersionReadStep::kInformation, ::GetLastError()};
    }
    void* block = nullptr;
    UINT length = 0;
    if (!Platform().VerQueryValueA(data.get(), "\\", &block, &length) || block == nullptr ||
        length < sizeof(VS_FIXEDFILEINFO)) {
        return {VersionReadStep::kRootBlock, ::GetLastError()};
    }
    info = *static_cast<const VS_FIXEDFILEINFO*>(block);
    return {VersionReadStep::kNone, 0};
}

FileVersion FileVersionOf(const VS_FIXEDFILEINFO& info) {
    return {HIWORD(info.dwFileVersionMS), LOWORD(info.dwFileVersionMS),
            HIWORD(info.dwFileVersionLS), LOWORD(info.dwFileVersionLS)};
}

ReleaseOfBuild SplitBuild(unsigned build) {
    return {static_cast<int>(build / 1000), static_cast<int>(build % 1000)};
}

}  // namespace kite
