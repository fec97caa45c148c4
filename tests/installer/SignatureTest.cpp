// Signed manifests: every row installs a manifest of a fresh fixture package, signed as kitehost
// signs, under the policy it names; a refusal leaves the folder as it was, without a marker, and
// names its reason in the log. Then a manifest that OpenSSL signed.
#include "KITEUpdate.h"
#include "Signing.h"
#include "installer/Package.h"

#include <cstring>
#include <filesystem>
#include <functional>

namespace kitetest {
namespace {

constexpr long kBadSignature = TRUST_E_BAD_DIGEST, kNoSignature = TRUST_E_NOSIGNATURE;
constexpr long kWrongRelease = HRESULT_FROM_WIN32(ERROR_PRODUCT_VERSION);

struct Row {
    const char* what;
    // The manifest installed, from the package and its manifest signed with every digest.
    std::function<std::string(const Package&, const std::string&)> manifest;
    bool trusted;    // the signing key among the trusted keys (beside another one)
    DWORD required;  // KiteRequireSignature
    long result;
    const char* reason;
};

TEST_F(InstallationTest, SignedManifestsAreCheckedBeforeAnythingIsRead) {
    kitehost::SigningKey key, other;
    ASSERT_TRUE(kitehost::GenerateSigningKey(key) && kitehost::GenerateSigningKey(other));
    RegistryValue keys(kCommonKey, "KiteTrustedKeys"), required(kCommonKey, "KiteRequireSignature");
    const auto sign = [&key](const std::string& t) { return kitehost::SignManifestText(t, key); };
    // Bound to the installed release (8) unless other releases are named.
    const auto digested = [](const Package& package, const std::string& releases = "R7,R8") {
        std::string manifest = package.Manifest();
        manifest.insert(std::strlen("<commands>"), "<slipstreams>" + releases + "</slipstreams>");
        return kitehost::FillDigests(manifest, true);
    };
    const auto same = [](const Package&, const std::string& text) { return text; };
    const Row rows[] = {
        {"valid", same, true, 1, 0, ""},
        {"one byte changed",
         [](auto&, std::string s) { return s.replace(s.find("  <a"), 1, "\t"); }, true, 0,
         kBadSignature, "does not verify under any trusted key (2 usable of 2)"},
        {"untrusted key", same, false, 0, kBadSignature, "under any trusted key (1 usable of 1)"},
        {"malformed",
         [](auto&, std::string s) { return s.insert(s.find("<signature>") + 15, "\n"); }, true, 0,
         kBadSignature, "its signature is not the base64 of 64 bytes"},
        {"empty", [](auto&, std::string s) { return s.erase(s.find("<signature>") + 11, 88); },
         true, 0, kBadSignature, "its signature is empty"},
        {"two elements",  // the element is 11 + 88 + 12 characters
         [](auto&, std::string s) {
             return s.insert(s.find("<signature>"), s.substr(s.find("<signature>"), 111));
         },
         true, 0, kBadSignature, "it carries 2 signature elements"},
        {"unsigned", [&](const Package& p, auto&) { return digested(p); }, true, 0, 0, ""},
        {"unsigned, required", [&](const Package& p, auto&) { return digested(p); }, true, 1,
         kNoSignature, "it carries no signature and the policy requires one"},
        {"signed, a digest missing", [&](const Package& p, auto&) { return sign(p.Manifest()); },
         true, 0, kBadSignature, "): it carries no sha256 and the manifest is signed"},
        {"another release", [&](const Package& p, auto&) { return sign(digested(p, "R1,R9")); },
         true, 0, kWrongRelease, "the installed release level 8 of "},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Package package("");
        ClearLog();
        std::string trusted = kitehost::PublicKeyText(other) + '\0';
        if (row.trusted) trusted += kitehost::PublicKeyText(key) + '\0';
        keys.Set(REG_MULTI_SZ, trusted + '\0');
        required.SetDword(row.required);
        EXPECT_EQ(InstallKite(row.manifest(package, sign(digested(package))).c_str()), row.result);
        if (row.result == 0) {
            package.ExpectCommitted();
            continue;
        }
        EXPECT_EQ(package.State(), package.before());
        EXPECT_FALSE(Exists(package.Marker()));
        EXPECT_NE(ReadLog().find(row.reason), std::string::npos) << ReadLog();
    }

    // Signed with OpenSSL at build time (openssl_signed.py), for a folder of its own.
    const std::string root = "C:\\kitetest\\openssl";
    CreateFolders(root + "\\app");
    CreateFolders(root + "\\pkg");
    WriteFileBytes(root + "\\app\\readme.txt", "old notes\r\n");
    WriteFileBytes(root + "\\pkg\\readme.txt", "new notes\r\n");
    keys.Set(REG_MULTI_SZ, ReadFileBytes(FixturePath("openssl-key.txt")) + std::string(2, '\0'));
    EXPECT_EQ(InstallKite(ReadFileBytes(FixturePath("openssl-signed.xml")).c_str()), 0);
    EXPECT_EQ(ReadFileBytes(root + "\\app\\readme.txt"), "new notes\r\n");
    EXPECT_FALSE(Exists(root + "\\app\\CriticalFixes\\force_apply_kite.dat"));
    std::filesystem::remove_all(root);
}

}  // namespace
}  // namespace kitetest
