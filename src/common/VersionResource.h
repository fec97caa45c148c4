// The fixed-file-information block of a file's version resource, and the numbers that the
// product's build component carries.
#pragma once

#include <windows.h>

namespace kite {

// Which platform call stopped the read; the product's messages name the step.
enum class VersionReadStep { kNone, kSize, kInformation, kRootBlock };

struct VersionReadResult {
    VersionReadStep failedStep;
    DWORD error;  // the last error code of the failed step, 0 on success
};

// Reads the "\" block of the version resource of the file at path into info.
VersionReadResult ReadFixedFileInfo(const char* path, VS_FIXEDFILEINFO& info);

struct FileVersion {
    unsigned major;
    unsigned minor;
    unsigned build;
    unsigned revision;
};

FileVersion FileVersionOf(const VS_FIXEDFILEINFO& info);

// The build component carries the release: build 4012 is level 4, slipstream 12.
struct ReleaseOfBuild {
    int level;
    int slipstream;
};

ReleaseOfBuild SplitBuild(unsigned build);

}  // namespace kite
