#include "common/Sha256.h"

#include "common/Handles.h"
#include "common/Platform.h"

#include <cctype>
#include <vector>

namespace kite {

namespace {

constexpr ULONG kDigestBytes = 32;
// Small enough to come from the process heap: a buffer of 1 MiB is mapped and zeroed afresh for
// every file, which cost more than hashing a 64 KiB file; larger reads are no faster.
constexpr DWORD kChunkBytes = 64 << 10;

std::string HexText(const unsigned char* bytes, ULONG count) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (ULONG i = 0; i < count; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace

std::string Sha256OfFile(HANDLE file) {
    UniqueHashAlgorithm algorithm;
    UniqueHash hash;
    if (!BCRYPT_SUCCESS(Platform().BCryptOpenAlgorithmProvider(
            algorithm.put(), BCRYPT_SHA256_ALGORITHM, nullptr, 0)) ||
        !BCRYPT_SUCCESS(
            Platform().BCryptCreateHash(algorithm.get(), hash.put(), nullptr, 0, nullptr, 0, 0))) {
        return std::string();
    }
    std::vector<unsigned char> chunk(kChunkBytes);
    DWORD read = 0;
    do {
        if (!::ReadFile(file, chunk.data(), kChunkBytes, &read, nullptr)) return std::string();
        if (read > 0 &&
            !BCRYPT_SUCCESS(Platform().BCryptHashData(hash.get(), chunk.data(), read, 0))) {
            return std::string();
        }
    } while (read > 0);
    unsigned char digest[kDigestBytes];
    if (!BCRYPT_SUCCESS(Platform().BCryptFinishHash(hash.get(), digest, kDigestBytes, 0))) {
        return std::string();
    }
    return HexText(digest, kDigestBytes);
}

bool IsSha256Text(const std::string& text) {
    if (text.size() != 2 * kDigestBytes) return false;
    for (const char c : text) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    }
    return true;
}

}  // namespace kite
