// The checks of a command that need the file system: links on the way into the product folder,
// and the payload's digest.
#pragma once

#include "common/Handles.h"
#include "installer/CommandCheck.h"

#include <windows.h>

#include <string>

namespace kite {

// TRUST_E_BAD_DIGEST: a payload that is not the one its manifest names.
constexpr HRESULT kBadDigest = static_cast<HRESULT>(0x80096010L);

// Why a path is refused because a junction or link stands at it or at a folder between the
// product folder and it; empty when there is none. A link there would let whoever planted it
// redirect what the installation writes as administrator.
std::string ReparseRefusal(const std::string& appdir, const std::string& path);

// Whether the machine's policy (DWORD KiteRequireDigests = 1 under the product's common key)
// refuses commands that carry no digest.
bool DigestsRequired();

// Hashes the command's source through a handle that denies writing and deleting to everyone
// else, and keeps that handle in held, so that the file copied is the file verified. Empty when
// the digest matches; otherwise the reason, naming the file and both digests.
std::string DigestRefusal(const PlannedCommand& command, UniqueHandle& held);

}  // namespace kite
