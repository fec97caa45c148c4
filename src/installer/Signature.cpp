#include "installer/Signature.h"

#include "KITEUpdate.h"
#include "common/Handles.h"
#include "common/Platform.h"
#include "exports/SlipstreamList.h"
#include "installer/Events.h"
#include "installer/Verify.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace kite {

namespace {

constexpr const char* kCommonKey = "Software\\Tolvix\\TallowmereCommon";
constexpr const char* kTrustedKeysValue = "KiteTrustedKeys";
constexpr const char* kRequireSignatureValue = "KiteRequireSignature";
constexpr char kStartTag[] = "<signature>";
constexpr char kEndTag[] = "</signature>";
constexpr std::size_t kPointBytes = 65;      // 04 || X || Y
constexpr std::size_t kSignatureBytes = 64;  // r || s
constexpr ULONG kCoordinateBytes = 32;
constexpr ULONG kDigestBytes = 32;
constexpr long kInvalidParameter = static_cast<long>(0xC000000DL);  // STATUS_INVALID_PARAMETER
constexpr long kUnsuccessful = static_cast<long>(0xC0000001L);      // STATUS_UNSUCCESSFUL
constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool StartsWith(const std::string& text, std::size_t at, const char* prefix) {
    return text.compare(at, std::strlen(prefix), prefix) == 0;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// One past the first close at or after from, or npos.
std::size_t After(const std::string& text, std::size_t from, const char* close) {
    const std::size_t at = text.find(close, from);
    return at == std::string::npos ? at : at + std::strlen(close);
}

// One past the markup that begins with the '<' at at, skipped as the XML reader skips it: quotes
// count only in a tag, brackets only in a DOCTYPE (its internal subset may hold '>'). npos when
// the markup does not end.
std::size_t MarkupEnd(const std::string& text, std::size_t at) {
    if (StartsWith(text, at, "<!--")) return After(text, at + 4, "-->");
    if (StartsWith(text, at, "<![CDATA[")) return After(text, at + 9, "]]>");
    if (StartsWith(text, at, "<?")) return After(text, at + 2, "?>");
    const bool tag = !StartsWith(text, at, "<!");
    const bool doctype =
        StartsWith(text, at, "<!DOCTYPE") && text.size() > at + 9 && IsBlank(text[at + 9]);
    char quote = 0;
    int brackets = 0;
    for (std::size_t i = at + 1; i < text.size(); ++i) {
        const char c = text[i];
        if (quote != 0) {
            if (c == quote) quote = 0;
        } else if (tag && (c == '"' || c == '\'')) {
            quote = c;
        } else if (doctype && c == '[') {
            ++brackets;
        } else if (doctype && c == ']' && brackets > 0) {
            --brackets;
        } else if (c == '>' && brackets == 0) {
            return i + 1;
        }
    }
    return std::string::npos;
}

// The element whose start tag spans [at, tagEnd): plain when the tag is exactly "<signature>",
// text without markup follows and then exactly "</signature>".
SignatureElement ElementAt(const std::string& text, std::size_t at, std::size_t tagEnd) {
    SignatureElement element;
    element.begin = at;
    if (tagEnd - at != std::strlen(kStartTag) || !StartsWith(text, at, kStartTag)) return element;
    const std::size_t close = text.find('<', tagEnd);
    if (close == std::string::npos || !StartsWith(text, close, kEndTag)) return element;
    element.text = text.substr(tagEnd, close - tagEnd);
    element.end = close + std::strlen(kEndTag);
    element.plain = true;
    return element;
}

int Base64Value(char c) {
    const char* digit = c == '\0' ? nullptr : std::strchr(kBase64Digits, c);
    return digit == nullptr ? -1 : static_cast<int>(digit - kBase64Digits);
}

SignatureVerdict Refuse(HRESULT status, std::string reason) {
    SignatureVerdict verdict;
    verdict.status = status;
    verdict.reason = std::move(reason);
    return verdict;
}

// Tries every usable trusted key; a key that is not the base64 of a 65-byte point is skipped.
SignatureVerdict VerifyUnderTrustedKeys(const std::string& signedText,
                                        const std::vector<unsigned char>& signature,
                                        const std::vector<std::string>& trustedKeys) {
    std::size_t usable = 0;
    for (std::size_t i = 0; i < trustedKeys.size(); ++i) {
        std::vector<unsigned char> point;
        if (!DecodeBase64(trustedKeys[i], point) || point.size() != kPointBytes) continue;
        ++usable;
        if (VerifyP256Signature(signedText, signature, point) == 0) {
            SignatureVerdict verdict;
            verdict.verified = true;
            verdict.reason = "trusted key " + std::to_string(i + 1);
            return verdict;
        }
    }
    return Refuse(kBadDigest, "its signature does not verify under any trusted key (" +
                                  std::to_string(usable) + " usable of " +
                                  std::to_string(trustedKeys.size()) + ")");
}

}  // namespace

std::vector<std::string> ReadTrustedKeys() {
    DWORD bytes = 0;
    if (::RegGetValueA(HKEY_LOCAL_MACHINE, kCommonKey, kTrustedKeysValue, RRF_RT_REG_MULTI_SZ,
                       nullptr, nullptr, &bytes) != ERROR_SUCCESS) {
        return {};
    }
    // Two zero bytes beyond what the value holds end the list even when the value does not.
    std::vector<char> data(bytes + 2);
    bytes = static_cast<DWORD>(data.size() - 2);
    if (::RegGetValueA(HKEY_LOCAL_MACHINE, kCommonKey, kTrustedKeysValue, RRF_RT_REG_MULTI_SZ,
                       nullptr, data.data(), &bytes) != ERROR_SUCCESS) {
        return {};
    }
    std::vector<std::string> keys;
    for (const char* key = data.data(); *key != '\0'; key += std::strlen(key) + 1) {
        keys.emplace_back(key);
    }
    return keys;
}

bool SignatureRequired() { return PolicyIsOne(kRequireSignatureValue); }

std::vector<SignatureElement> FindSignatureElements(const std::string& manifest) {
    std::vector<SignatureElement> found;
    std::size_t depth = 0;    // elements open at this point
    bool inCommands = false;  // the open top-level element is "commands"
    for (std::size_t at = manifest.find('<'); at != std::string::npos;
         at = manifest.find('<', at)) {
        const std::size_t end = MarkupEnd(manifest, at);
        if (end == std::string::npos) break;
        const char kind = manifest[at + 1];
        if (kind == '/') {
            if (depth > 0) --depth;
        } else if (kind != '!' && kind != '?') {
            const std::size_t nameEnd = manifest.find_first_of(" \t\r\n/>?", at + 1);
            const std::string_view name(manifest.data() + at + 1, nameEnd - at - 1);
            if (depth == 0) inCommands = name == "commands";
            if (depth == 1 && inCommands && name == "signature") {
                found.push_back(ElementAt(manifest, at, end));
            }
            if (manifest[end - 2] != '/') ++depth;
        }
        at = end;
    }
    return found;
}

std::string SignedText(const std::string& manifest, const SignatureElement& element) {
    return manifest.substr(0, element.begin) + manifest.substr(element.end);
}

bool DecodeBase64(const std::string& text, std::vector<unsigned char>& bytes) {
    bytes.clear();
    if (text.size() % 4 != 0) return false;
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
        ++padding;
    }
    unsigned long bits = 0;
    int held = 0;
    for (std::size_t i = 0; i < text.size() - padding; ++i) {
        const int value = Base64Value(text[i]);
        if (value < 0) return false;
        bits = (bits << 6) | static_cast<unsigned long>(value);
        held += 6;
        if (held >= 8) {
            held -= 8;
            bytes.push_back(static_cast<unsigned char>(bits >> held));
        }
    }
    // Bits beyond the last byte must be zero, so that one byte string has one text.
    return (bits & ((1ul << held) - 1)) == 0;
}

std::string EncodeBase64(const std::vector<unsigned char>& bytes) {
    std::string text;
    const std::size_t count = bytes.size();
    for (std::size_t i = 0; i < count; i += 3) {
        const unsigned long group = static_cast<unsigned long>(bytes[i]) << 16 |
                                    (i + 1 < count ? bytes[i + 1] << 8 : 0) |
                                    (i + 2 < count ? bytes[i + 2] : 0);
        text += kBase64Digits[group >> 18 & 63];
        text += kBase64Digits[group >> 12 & 63];
        text += i + 1 < count ? kBase64Digits[group >> 6 & 63] : '=';
        text += i + 2 < count ? kBase64Digits[group & 63] : '=';
    }
    return text;
}

std::vector<unsigned char> Sha256OfText(const std::string& text) {
    PlatformCalls& cng = Platform();
    UniqueHashAlgorithm algorithm;
    UniqueHash hash;
    NTSTATUS status =
        cng.BCryptOpenAlgorithmProvider(algorithm.put(), BCRYPT_SHA256_ALGORITHM, nullptr, 0);
    if (BCRYPT_SUCCESS(status)) {
        status = cng.BCryptCreateHash(algorithm.get(), hash.put(), nullptr, 0, nullptr, 0, 0);
    }
    // BCryptHashData takes a ULONG count: a text beyond 4 GiB goes in pieces.
    constexpr std::size_t kPiece = 1u << 30;
    for (std::size_t at = 0; BCRYPT_SUCCESS(status) && at < text.size(); at += kPiece) {
        const ULONG piece = static_cast<ULONG>(std::min(text.size() - at, kPiece));
        auto* bytes = reinterpret_cast<PUCHAR>(const_cast<char*>(text.data() + at));
        status = cng.BCryptHashData(hash.get(), bytes, piece, 0);
    }
    std::vector<unsigned char> digest(kDigestBytes);
    if (BCRYPT_SUCCESS(status)) {
        status = cng.BCryptFinishHash(hash.get(), digest.data(), kDigestBytes, 0);
    }
    if (!BCRYPT_SUCCESS(status)) digest.clear();
    return digest;
}

long VerifyP256Signature(const std::string& text, const std::vector<unsigned char>& signature,
                         const std::vector<unsigned char>& point) {
    if (signature.size() != kSignatureBytes || point.size() != kPointBytes || point[0] != 4) {
        return kInvalidParameter;
    }
    std::vector<unsigned char> digest = Sha256OfText(text);
    NTSTATUS status = digest.empty() ? kUnsuccessful : 0;
    // A BCRYPT_ECCPUBLIC_BLOB: its header, then X and Y.
    const BCRYPT_ECCKEY_BLOB header = {BCRYPT_ECDSA_PUBLIC_P256_MAGIC, kCoordinateBytes};
    std::vector<unsigned char> blob(sizeof header);
    std::memcpy(blob.data(), &header, sizeof header);
    blob.insert(blob.end(), point.begin() + 1, point.end());
    PlatformCalls& cng = Platform();
    UniqueHashAlgorithm algorithm;
    UniqueCngKey key;  // destroyed before its algorithm is closed
    if (BCRYPT_SUCCESS(status)) {
        status = cng.BCryptOpenAlgorithmProvider(algorithm.put(), BCRYPT_ECDSA_P256_ALGORITHM,
                                                 nullptr, 0);
    }
    if (BCRYPT_SUCCESS(status)) {
        status = cng.BCryptImportKeyPair(algorithm.get(), nullptr, BCRYPT_ECCPUBLIC_BLOB, key.put(),
                                         blob.data(), static_cast<ULONG>(blob.size()), 0);
    }
    if (BCRYPT_SUCCESS(status)) {
        status = cng.BCryptVerifySignature(key.get(), nullptr, digest.data(), kDigestBytes,
                                           const_cast<PUCHAR>(signature.data()),
                                           static_cast<ULONG>(signature.size()), 0);
    }
    return status;
}

SignatureVerdict CheckSignature(const std::string& manifest,
                                const std::vector<std::string>& trustedKeys, bool required) {
    const std::vector<SignatureElement> elements = FindSignatureElements(manifest);
    if (elements.empty()) {
        return required
                   ? Refuse(kNoSignature, "it carries no signature and the policy requires one")
                   : SignatureVerdict();
    }
    if (elements.size() > 1) {
        return Refuse(kBadDigest,
                      "it carries " + std::to_string(elements.size()) + " signature elements");
    }
    const SignatureElement& element = elements.front();
    if (!element.plain) {
        return Refuse(kBadDigest,
                      "its signature element is not written <signature>base64</signature>");
    }
    if (element.text.empty()) return Refuse(kBadDigest, "its signature is empty");
    std::vector<unsigned char> signature;
    if (!DecodeBase64(element.text, signature) || signature.size() != kSignatureBytes) {
        return Refuse(kBadDigest, "its signature is not the base64 of 64 bytes");
    }
    return VerifyUnderTrustedKeys(SignedText(manifest, element), signature, trustedKeys);
}

SignatureVerdict CheckManifestSignature(std::ostream& log, const char* manifestText) {
    SignatureVerdict verdict;
    try {
        verdict = CheckSignature(manifestText == nullptr ? std::string() : manifestText,
                                 ReadTrustedKeys(), SignatureRequired());
    } catch (const std::exception&) {
        verdict = Refuse(kBadDigest, "its signature cannot be checked (out of memory)");
    }
    if (verdict.status != S_OK) {
        TraceAndReport(log, "KITE: CKiteInstaller::Install refused the manifest: " + verdict.reason,
                       true);
    } else if (verdict.verified) {
        log << "CKiteInstaller::Install verified the manifest's signature under " << verdict.reason
            << std::endl;
    }
    return verdict;
}

std::vector<Refused> SignedManifestRefusals(const SignatureVerdict& signature,
                                            const ptree& commands,
                                            const std::vector<PlannedCommand>& plan,
                                            const std::string& appdir) {
    std::vector<Refused> refusals;
    if (!signature.verified) return refusals;
    for (std::size_t i = 0; i < plan.size(); ++i) {
        if (plan[i].hasDigest) continue;
        refusals.push_back({"KITE: CKiteInstaller::Install refused command " +
                                std::to_string(i + 1) + " (" + plan[i].dst +
                                "): it carries no sha256 and the manifest is signed",
                            kBadDigest});
    }
    const boost::optional<std::string> releases = commands.get_optional<std::string>("slipstreams");
    if (!releases) return refusals;
    // A level that cannot be read (-1: the product files disagree) is never among them.
    const int level = GetTwSlipstream2(appdir.c_str());
    if (level >= 0 && SlipstreamListCovers(*releases, level)) return refusals;
    refusals.push_back(
        {"KITE: CKiteInstaller::Install refused the manifest: the installed "
         "release level " +
             std::to_string(level) + " of " + appdir + " is not among its slipstreams \"" +
             *releases + "\"",
         kWrongRelease});
    return refusals;
}

HRESULT SignedManifestRefusal(std::ostream& log, const SignatureVerdict& signature,
                              const ptree& commands, const std::vector<PlannedCommand>& plan,
                              const std::string& appdir) {
    const std::vector<Refused> refusals = SignedManifestRefusals(signature, commands, plan, appdir);
    if (refusals.empty()) return S_OK;
    TraceAndReport(log, refusals.front().text, true);
    return refusals.front().status;
}

}  // namespace kite
