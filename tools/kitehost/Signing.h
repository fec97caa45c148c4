// Signing of package manifests, for package authors (kitehost keygen and sign).
//
// The private key file is the SEC 1 form that OpenSSL also reads and writes (RFC 5915, PEM
// "EC PRIVATE KEY", curve P-256 named, public key included), so an author can sign with either
// tool: `openssl ecparam -name prime256v1 -genkey -noout -out key.pem` makes one kitehost signs
// with, and `openssl dgst -sha256 -sign key.pem` takes the one kitehost made.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace kitehost {

struct SigningKey {
    std::vector<unsigned char> point;   // 04 || X || Y, 65 bytes
    std::vector<unsigned char> scalar;  // d, 32 bytes
};

// A new P-256 key from the system's CNG; false when CNG cannot make one.
bool GenerateSigningKey(SigningKey& key);

// The key file's text, and the key read back from it (false for any other text).
std::string KeyFileText(const SigningKey& key);
bool ReadKeyFileText(const std::string& text, SigningKey& key);

// The public key as the machine's KiteTrustedKeys holds it: the base64 of 04 || X || Y.
std::string PublicKeyText(const SigningKey& key);

// r || s of ECDSA P-256 with SHA-256 over the text; empty when CNG cannot sign.
std::vector<unsigned char> SignText(const std::string& text, const SigningKey& key);

// The manifest text with its signature over that exact text inserted as the last child of
// "commands", just before the last "</commands>": cutting the element out gives the text back.
// Empty when the text has no "</commands>" or CNG cannot sign.
std::string SignManifestText(const std::string& text, const SigningKey& key);

// A command's source that cannot be read or hashed; what() is its path.
struct SourceUnreadable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The manifest read and written again with the sha256 of every command's source filled in, and
// without its signature elements when dropSignatures is set. Throws SourceUnreadable, or the XML
// reader's or the tree's error for a manifest that cannot be read.
std::string FillDigests(const std::string& manifest, bool dropSignatures);

}  // namespace kitehost
