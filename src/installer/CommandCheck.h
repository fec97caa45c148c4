// What every command of a manifest must satisfy before the installation changes anything. A
// package comes from a place an ordinary user may be able to write, and the installer runs as
// administrator: a destination outside the product folder, a device or a stream name would let
// a package write anywhere, and a path that only overflows its buffer half-way through would
// end the host with the product folder half replaced.
#pragma once

#include <windows.h>

#include <string>

namespace kite {

// One command of the manifest, as the installation applies it.
struct PlannedCommand {
    std::string src;
    std::string dst;
    int serverType = 0;
    bool hasDigest = false;
    std::string sha256;  // as the manifest wrote it
};

// One reason a package is refused before its first change: the text the log line and the error
// event carry, and the installation's status.
struct Refused {
    std::string text;
    HRESULT status;
};

// Longest path any of the installation's fixed-size buffers takes, terminator excluded.
constexpr std::size_t kLongestPath = 259;

// Why the product folder cannot be installed into, or empty: an absolute drive path, short
// enough that its marker, journal and backup folder fit their buffers.
std::string ProductFolderRefusal(const std::string& appdir);

// Why a path is not a file strictly inside appdir, written as the file system resolves it.
std::string PathInsideRefusal(const std::string& appdir, const std::string& path);

// Why a command is refused, or empty. Looks at the text only: dst must name a file strictly
// inside appdir in the form the file system would resolve it to (no "." or ".." steps, no
// second separator, stream, device or trailing-dot names, no long-path or device prefixes); src
// must be a local path on a drive that names no device; and every path the installation uses for
// the command (src, dst, its GUID name aside, its temporary name, its backup copy) must fit its
// buffer.
std::string CommandRefusal(const std::string& appdir, const PlannedCommand& command);

// The path as SamePath compares it: two paths are the same exactly when these are equal.
std::string FoldedPath(const std::string& path);

// Whether two paths name the same file, as the file system compares names (without regard to
// case).
bool SamePath(const std::string& a, const std::string& b);

}  // namespace kite
