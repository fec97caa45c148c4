// Signed manifests. A package folder often sits where an ordinary user can write, and its
// manifest chooses the product folder, the files and their registration, all acted on as
// administrator; the payload digests live in the same text, so they prove nothing about who wrote
// it. A machine that trusts keys (REG_MULTI_SZ KiteTrustedKeys under the product's common key,
// each the base64 of a P-256 point 04 || X || Y) accepts a signed manifest only when its
// signature verifies under one of them, and with DWORD KiteRequireSignature = 1 it refuses an
// unsigned one.
//
// The signature is one "signature" element, a child of "commands", holding the base64 of r || s
// (32 bytes each, big-endian) of ECDSA P-256 with SHA-256 over the manifest's exact bytes with that
// element cut out, from the '<' of "<signature>" to the '>' of "</signature>": an author signs
// the text and inserts the element, and any standard tool can do both. A signed manifest must
// name the digest of every payload, and may bind itself to releases ("slipstreams"), so that an
// old signed package cannot be handed in again over a newer release.
#pragma once

#include "installer/CommandCheck.h"
#include "installer/Manifest.h"

#include <windows.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace kite {

// TRUST_E_NOSIGNATURE: an unsigned manifest where the policy requires a signature.
constexpr HRESULT kNoSignature = static_cast<HRESULT>(0x800B0100L);
// ERROR_PRODUCT_VERSION as an HRESULT: a signed manifest for other releases than the installed.
constexpr HRESULT kWrongRelease = static_cast<HRESULT>(0x80070666L);

// One "signature" element that is a child of the root "commands", where it stands in the text.
struct SignatureElement {
    std::size_t begin = 0;  // the '<' of its start tag
    std::size_t end = 0;    // one past the '>' of its end tag (plain elements only)
    std::string text;       // between the tags (plain elements only)
    bool plain = false;     // written exactly "<signature>text</signature>", text without markup
};

// Every "signature" child of "commands", in document order. Comments, CDATA sections,
// declarations and quoted attribute values are skipped as the XML reader skips them, so an
// element found here is an element the reader sees at the same place.
std::vector<SignatureElement> FindSignatureElements(const std::string& manifest);

// The text that was signed: the manifest without the element, nothing else changed.
std::string SignedText(const std::string& manifest, const SignatureElement& element);

// Strict base64 (RFC 4648, padded, no blanks or line breaks, no bits beyond the last byte): false
// for any other text.
bool DecodeBase64(const std::string& text, std::vector<unsigned char>& bytes);
std::string EncodeBase64(const std::vector<unsigned char>& bytes);

// SHA-256 of the text through CNG; empty when CNG cannot hash.
std::vector<unsigned char> Sha256OfText(const std::string& text);

// Whether the 64-byte r || s verifies over the text under the 65-byte point 04 || X || Y: the
// status of BCryptVerifySignature (0 when it does), or of the CNG step that failed before it.
long VerifyP256Signature(const std::string& text, const std::vector<unsigned char>& signature,
                         const std::vector<unsigned char>& point);

// What the check of a manifest's signature found.
struct SignatureVerdict {
    HRESULT status = S_OK;  // S_OK, kBadDigest or kNoSignature
    bool verified = false;  // a signature verified under a trusted key
    std::string reason;     // why it was refused, or under which key it verified
};

// The check itself, on the text and the machine's policy as given (keys as KiteTrustedKeys holds
// them; unusable ones are skipped).
SignatureVerdict CheckSignature(const std::string& manifest,
                                const std::vector<std::string>& trustedKeys, bool required);

// The first step of an installation, before anything the manifest says is read: the check under
// the machine's policy. A refusal is logged and reported as an error event.
SignatureVerdict CheckManifestSignature(std::ostream& log, const char* manifestText);

// The machine's policy: the trusted keys as KiteTrustedKeys holds them, and whether
// KiteRequireSignature is 1.
std::vector<std::string> ReadTrustedKeys();
bool SignatureRequired();

// What a verified manifest must also satisfy: a sha256 in every command (kBadDigest) and, when it
// names "slipstreams", the installed release level of appdir among them (kWrongRelease). Every
// refusal, in the order of the commands; none for a manifest that was not signed.
std::vector<Refused> SignedManifestRefusals(const SignatureVerdict& signature,
                                            const ptree& commands,
                                            const std::vector<PlannedCommand>& plan,
                                            const std::string& appdir);

// The first of them, logged and reported as an error event; S_OK when there is none.
HRESULT SignedManifestRefusal(std::ostream& log, const SignatureVerdict& signature,
                              const ptree& commands, const std::vector<PlannedCommand>& plan,
                              const std::string& appdir);

}  // namespace kite
