// The checks of a command that need the file system: links on the way into the product folder,
// the source (a local file reached through no link, held open from its check until the end of the
// installation, so that the file copied is the file checked), and the payload's digest.
#pragma once

#include "common/Handles.h"
#include "installer/CommandCheck.h"

#include <windows.h>

#include <map>
#include <string>

namespace kite {

// TRUST_E_BAD_DIGEST: a payload that is not the one its manifest names.
constexpr HRESULT kBadDigest = static_cast<HRESULT>(0x80096010L);

// Why a path is refused because a junction or link stands at it or at a folder between base and
// it; empty when there is none. A link there would let whoever planted it redirect what the
// installation reads or writes as administrator.
std::string ReparseRefusal(const std::string& base, const std::string& path);

// The source opened for reading only, denying writes and deletes to everyone else, without
// following a link at its own name; invalid (with the platform's error) when it cannot be opened,
// and with ERROR_CANT_ACCESS_FILE when a link stands on its way or it is not a plain file.
HANDLE OpenSource(const std::string& path);

// The drive types of the sources' drives, each asked of the system once per installation: under
// Wine the question costs about 0.3 ms, a thousand times over for a package of a thousand files.
class DriveTypes {
  public:
    UINT Of(const std::string& path);

  private:
    std::map<char, UINT> known_;
};

// Why a command's source is refused, or empty: it is on a network drive, or reaches through a
// link. A source that exists is opened by OpenSource and kept in held; a missing one is not a
// refusal (its copy fails, as a copy of a missing file does).
std::string SourceRefusal(const PlannedCommand& command, DriveTypes& drives, UniqueHandle& held);

// Whether the DWORD policy value of that name under the product's common key is 1.
bool PolicyIsOne(const char* name);

// Whether the machine's policy (DWORD KiteRequireDigests = 1 under the product's common key)
// refuses commands that carry no digest.
bool DigestsRequired();

// Hashes the held source and compares. Empty when the digest matches; otherwise the reason,
// naming the file and both digests.
std::string DigestRefusal(const PlannedCommand& command, HANDLE held);

}  // namespace kite
