#include "KITEUpdate.h"
#include "installer/KiteInstaller.h"
#include "installer/Package.h"
#include "support/PlatformOverride.h"

#include <memory>
#include <sstream>
#include <vector>

namespace kitetest {
namespace {

constexpr long kBadDigest = static_cast<long>(0x80096010L);
// sha256 of the package's readme.txt, "new notes\r\n".
constexpr const char* kReadmeDigest =
    "<sha256>24AD3EE6303B5F041317E2150BD5436BA31675F1B5F0A73D4C76AA3D388621C2</sha256>";

using InstallerTest = InstallationTest;

void ExpectInOrder(const std::string& log, const std::vector<std::string>& texts) {
    std::string::size_type at = 0;
    for (const std::string& text : texts) {
        at = log.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << " missing or out of order";
    }
}

TEST_F(InstallerTest, CommitsOrUndoesNewestFirst) {
    {
        Package package("kitecom_ok");
        EXPECT_EQ(InstallKite(package.Manifest().c_str()), 0);
        package.ExpectCommitted();
        EXPECT_TRUE(Exists(package.app() + "\\CriticalFixes\\tww.exe"));
        EXPECT_FALSE(Exists(package.app() + "\\CriticalFixes\\readme.txt"));
    }
    ClearLog();
    Package package("kitecom_fail");
    EXPECT_EQ(InstallKite(package.Manifest().c_str()), static_cast<long>(E_FAIL));
    package.ExpectUndone();
    const std::string app = package.app() + "\\";
    std::vector<std::string> undo = {"Entering CKiteInstaller::Abort",
                                     "File: " + app + "Server.dll Register: 0ServerType: 2",
                                     "Deleting " + app + "Reports\\TwReports.dll - Success.\r\n"};
    for (const char* name :
         {"Server.dll", "readme.txt", "Options.DLL", "BASECORE.DLL", "tww.exe"}) {
        undo.push_back("Deleting " + app + name + " - Success.\r\n");
        undo.push_back(" => " + app + name + " ret = 1\r\n");
        if (std::string(name) == "Server.dll")
            undo.push_back("File: " + app + name + " Register: 1ServerType: 2");
    }
    undo.push_back("creating: " + package.Marker() + "\r\n");
    ExpectInOrder(ReadLog(), undo);
}

TEST_F(InstallerTest, HostileCommandsAreRefusedBeforeAnyChange) {
    Package package("");
    const std::string app = package.app(), good = package.pkg() + "\\readme.txt";
    const std::pair<std::string, std::string> rows[] = {
        {good, app + "\\..\\evil.dll"},
        {good, "C:\\windows\\evil.dll"},
        {good, "\\\\?\\" + app + "\\x.dll"},
        {good, "\\\\.\\" + app.substr(0, 2) + "\\x.dll"},
        {good, app + "\\x.dll:payload"},
        {good, app + "\\sub\\COM1.txt"},
        {good, app + "\\x.dll."},
        {good, app + "\\sub/..\\x.dll"},
        {good, package.Marker()},
        {good, app + "\\" + std::string(215, 'd') + "\\x"},
        {good, app + "\\" + std::string(213 - app.size(), 'd') + "\\" + std::string(40, 'n')},
        {good, "x.dll"},
        {good, app + "2\\x.dll"},
        {"NUL", app + "\\x.dll"},
        {"\\\\server\\share\\x.dll", app + "\\x.dll"},
        {package.pkg() + "\\" + std::string(260, 's'), app + "\\x.dll"},
    };
    for (const auto& [src, dst] : rows) {
        SCOPED_TRACE(src + " => " + dst);
        ClearLog();
        std::string manifest = package.Manifest();
        manifest.insert(manifest.rfind("</commands>"), Package::Command(src, dst, 0));
        EXPECT_EQ(InstallKite(manifest.c_str()), static_cast<long>(E_FAIL));
        EXPECT_EQ(package.State(), package.before());
        EXPECT_NE(ReadLog().find("refused command 6 ("), std::string::npos);
    }
    // The author's check lists every refusal of a package, not only the first, and changes nothing.
    std::string all = package.Manifest();
    for (const auto& [src, dst] : rows) {
        all.insert(all.rfind("</commands>"), Package::Command(src, dst, 0));
    }
    const std::vector<std::string> refusals = kite::CKiteInstaller().CheckPackage(all.c_str());
    ASSERT_EQ(refusals.size(), std::size(rows));
    for (std::size_t i = 0; i < refusals.size(); ++i) {
        EXPECT_NE(refusals[i].find("refused command " + std::to_string(i + 6) + " ("),
                  std::string::npos);
    }
    EXPECT_EQ(package.State(), package.before());
}

TEST_F(InstallerTest, PayloadsAreVerifiedBeforeAnyChange) {
    Package package("");
    RegistryValue policy(kCommonKey, "KiteRequireDigests");
    const std::string src = package.pkg() + "\\readme.txt", dst = package.app() + "\\readme.txt";
    const std::string wrong = "<sha256>" + std::string(64, 'a') + "</sha256>";
    const auto readme = [&](const std::string& digest) {
        return package.ManifestOf(Package::Command(src, dst, 0, digest));
    };
    const std::tuple<std::string, DWORD, bool, long> rows[] = {
        {readme(kReadmeDigest), 1, false, 0},                               // matching, required
        {readme(wrong), 0, false, kBadDigest},                              // wrong
        {package.Manifest("<sha256>12ab</sha256>"), 0, false, kBadDigest},  // malformed
        {readme(kReadmeDigest), 0, true, kBadDigest},                       // held by another
        {package.Manifest(), 1, false, kBadDigest},                         // required, missing
    };
    for (const auto& [manifest, required, held, result] : rows) {
        SCOPED_TRACE(manifest);
        ClearLog();
        policy.SetDword(required);
        HeldProgram holder;
        if (held) holder.Start(HeldProgram::ProgramPath(), src);
        EXPECT_EQ(InstallKite(manifest.c_str()), result);
        EXPECT_EQ(ReadFileBytes(dst), result == 0 ? "new notes\r\n" : "old notes\r\n");
        WriteFileBytes(dst, "old notes\r\n");
    }
    ClearLog();
    InstallKite(std::get<0>(rows[1]).c_str());
    EXPECT_NE(ReadLog().find("refused command 1 (" + dst + "): sha256 of " + src +
                             " is 24ad3ee6303b5f041317e2150bd5436ba31675f1b5f0a73d4c76aa3d388621c2,"
                             " expected " +
                             std::string(64, 'a') + "\r\n"),
              std::string::npos);
}

// A failing copy is tried four times across three waits of a second; all the while, the verified
// source stays held so that nobody can change it before it is copied.
TEST_F(InstallerTest, FailingCopyIsRetriedWhileTheVerifiedSourceIsHeld) {
    Package package("");
    PlatformOverride platform;
    static std::string src;
    static int copies, writable;
    static std::vector<DWORD> waits;
    src = package.pkg() + "\\readme.txt";
    copies = writable = 0;
    waits.clear();
    // Each copy is written under a temporary name, then renamed into place: that rename fails.
    platform.calls().MoveFileExA = [](LPCSTR, LPCSTR, DWORD) -> BOOL {
        return ::SetLastError(ERROR_SHARING_VIOLATION), ++copies, FALSE;
    };
    platform.calls().Sleep = [](DWORD ms) {
        waits.push_back(ms);
        HANDLE file =
            ::CreateFileA(src.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr);
        if (file != INVALID_HANDLE_VALUE) writable += ::CloseHandle(file);
    };
    const std::string dst = package.app() + "\\readme.txt";
    EXPECT_EQ(InstallKite(package.ManifestOf(Package::Command(src, dst, 0, kReadmeDigest)).c_str()),
              static_cast<long>(E_FAIL));
    EXPECT_EQ(copies, 4);
    EXPECT_EQ(waits, std::vector<DWORD>(3, 1000));
    EXPECT_EQ(writable, 0);
    ExpectInOrder(ReadLog(), {"CopyFile failed with GetLastError 32\r\n",
                              "CopyFile_s for file " + src + " to destination " + dst +
                                  "failed in attempt  3\r\n"});
    package.ExpectUndone();
    EXPECT_FALSE(Exists(dst + ".kitenew"));
    // A source that was missing at the check is looked for again at each attempt.
    platform.calls().MoveFileExA = ::MoveFileExA;
    const std::string missing = package.pkg() + "\\gone.txt";
    ClearLog();
    EXPECT_EQ(InstallKite(package.ManifestOf(Package::Command(missing, dst, 0)).c_str()),
              static_cast<long>(E_FAIL));
    const std::string log = ReadLog(), line = "Error: " + missing + " doesn't exist\r\n";
    int lines = 0;
    for (auto at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) ++lines;
    EXPECT_EQ(lines, 4);
    EXPECT_EQ(ReadFileBytes(dst), "old notes\r\n");
}

// A new file held open cannot be deleted by the undo: the old one is put back over it at restart,
// and the product's own name is never scheduled for deletion. The next installation of that file
// makes the restore first, so that the restart cannot revert it.
TEST_F(InstallerTest, HeldNewFileIsReplacedByTheOldOneAtRestartOrByTheNextInstallation) {
    Package package("kitecom_fail");
    const std::string key = "System\\CurrentControlSet\\Control\\Session Manager";
    RegistryValue pending(key, "PendingFileRenameOperations");
    pending.Delete();
    static std::unique_ptr<HeldProgram> holder;
    static std::string program;
    program = package.app() + "\\tww.exe";
    // Pairs of source and target; a "!" before the target replaces it, an empty one deletes.
    const auto pendingNames = [&] {
        std::vector<std::string> names;
        std::istringstream operations(RegistryValueBytes(key, "PendingFileRenameOperations"));
        for (std::string name; std::getline(operations, name, '\0');) names.push_back(name);
        return names;
    };
    {
        PlatformOverride platform;
        // The registration of the first server comes after every copy: hold the new program then.
        KITE_INTERCEPT(CreateProcessA)::Arm();
        KITE_INTERCEPT(CreateProcessA)::after = [] {
            if (holder) return;
            holder = std::make_unique<HeldProgram>();
            holder->Start(HeldProgram::ProgramPath(), program);
        };
        EXPECT_EQ(InstallKite(package.Manifest().c_str()), static_cast<long>(E_FAIL));
        KITE_INTERCEPT(CreateProcessA)::after = nullptr;
    }
    holder.reset();
    const std::vector<std::string> names = pendingNames();
    bool replaced = false;
    for (std::size_t i = 0; i + 1 < names.size(); i += 2) {
        EXPECT_FALSE(names[i] == "\\??\\" + program && names[i + 1].empty());
        replaced = replaced || names[i + 1] == "!\\??\\" + program;
    }
    EXPECT_TRUE(replaced);
    EXPECT_TRUE(Exists(package.Marker()));
    const std::string manifest = package.ManifestOf(
        Package::Command(package.pkg() + "\\tww.exe", program, 0) +
        Package::Command(package.pkg() + "\\readme.txt", package.app() + "\\readme.txt", 0));
    EXPECT_EQ(InstallKite(manifest.c_str()), 0);
    EXPECT_EQ(ReadFileBytes(program), ReadFileBytes(package.pkg() + "\\tww.exe"));
    for (const std::string& name : pendingNames()) EXPECT_EQ(name.find(program), std::string::npos);
}

}  // namespace
}  // namespace kitetest
