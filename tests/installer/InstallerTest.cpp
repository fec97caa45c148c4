// Whole installations over a real product folder under Wine: the two outcomes, what is refused
// before the first change, and what the undo does when a new file cannot be deleted.
#include "KITEUpdate.h"
#include "installer/Package.h"
#include "support/PlatformOverride.h"

#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

namespace kitetest {
namespace {

constexpr long kBadDigest = static_cast<long>(0x80096010L);
// sha256 of the package's readme.txt, "new notes\r\n".
constexpr const char* kReadmeDigest =
    "24AD3EE6303B5F041317E2150BD5436BA31675F1B5F0A73D4C76AA3D388621C2";

using InstallerTest = InstallationTest;

// The file name of the path between two markers of a line.
std::string NameBetween(const std::string& line, const char* from, const char* to) {
    const std::string::size_type start = line.find(from) + std::strlen(from);
    const std::string path = line.substr(start, line.find(to, start) - start);
    return path.substr(path.rfind('\\') + 1);
}

// The undo's own steps in the order the log shows them: D delete, R rename back, U unregister,
// G register again, M marker.
std::vector<std::string> UndoSteps(const std::string& log) {
    std::vector<std::string> steps;
    std::istringstream lines(log.substr(log.find("Entering CKiteInstaller::Abort")));
    for (std::string line; std::getline(lines, line);) {
        if (line.find("Exiting CKiteInstaller::Abort") != std::string::npos) break;
        if (line.rfind("Deleting ", 0) == 0)
            steps.push_back("D " + NameBetween(line, "Deleting ", " - "));
        if (line.rfind("Rename: ", 0) == 0)
            steps.push_back("R " + NameBetween(line, " => ", " ret"));
        if (line.rfind("File: ", 0) == 0) {
            const bool again = line.find("Register: 1") != std::string::npos;
            steps.push_back((again ? "G " : "U ") + NameBetween(line, "File: ", " Register"));
        }
        if (line.rfind("creating: ", 0) == 0) steps.push_back("M");
    }
    return steps;
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
    const std::vector<std::string> expected = {"U Server.dll",   "D TwReports.dll",
                                               "D Server.dll",   "R Server.dll",
                                               "G Server.dll",   "D readme.txt",
                                               "R readme.txt",   "D Options.DLL",
                                               "R Options.DLL",  "D BASECORE.DLL",
                                               "R BASECORE.DLL", "D tww.exe",
                                               "R tww.exe",      "M"};
    EXPECT_EQ(UndoSteps(ReadLog()), expected);
}

TEST_F(InstallerTest, HostileCommandsAreRefusedBeforeAnyChange) {
    Package package("");
    const std::string app = package.app();
    const std::string good = package.pkg() + "\\readme.txt";
    const struct {
        const char* what;
        std::string src;
        std::string dst;
    } rows[] = {
        {"climbs out", good, app + "\\..\\evil.dll"},
        {"another folder", good, "C:\\windows\\evil.dll"},
        {"long-path prefix", good, "\\\\?\\" + app + "\\x.dll"},
        {"device prefix", good, "\\\\.\\" + app.substr(0, 2) + "\\x.dll"},
        {"stream", good, app + "\\x.dll:payload"},
        {"device name", good, app + "\\sub\\COM1.txt"},
        {"trailing dot", good, app + "\\x.dll."},
        {"forward slash", good, app + "\\sub/..\\x.dll"},
        {"own marker", good, app + "\\CriticalFixes\\force_apply_kite.dat"},
        {"aside name too long", good, app + "\\" + std::string(215, 'd') + "\\x.dll"},
        {"no folder", good, "x.dll"},
        {"source device", "NUL", app + "\\x.dll"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ClearLog();
        std::string manifest = package.Manifest();
        manifest.insert(manifest.rfind("</commands>"), Package::Command(row.src, row.dst, 0));
        EXPECT_EQ(InstallKite(manifest.c_str()), static_cast<long>(E_FAIL));
        EXPECT_EQ(package.State(), package.before());
        EXPECT_NE(ReadLog().find("refused command 6 ("), std::string::npos);
    }
}

TEST_F(InstallerTest, PayloadsAreVerifiedBeforeAnyChange) {
    Package package("");
    RegistryValue policy(kCommonKey, "KiteRequireDigests");
    const std::string readme =
        Package::Command(package.pkg() + "\\readme.txt", package.app() + "\\readme.txt", 0,
                         std::string("<sha256>") + kReadmeDigest + "</sha256>");
    const std::string onlyReadme = package.ManifestOf(readme);
    const std::string wrong = "<sha256>" + std::string(64, 'a') + "</sha256>";
    const struct {
        const char* what;
        std::string manifest;
        DWORD policy;
        bool held;
        long result;
    } rows[] = {
        {"matching", onlyReadme, 0, false, 0},
        {"matching, required", onlyReadme, 1, false, 0},
        {"wrong",
         onlyReadme.substr(0, onlyReadme.find("<sha256>")) + wrong + "</command></commands>", 0,
         false, kBadDigest},
        {"malformed", package.Manifest("<sha256>12ab</sha256>"), 0, false, kBadDigest},
        {"source held by another", onlyReadme, 0, true, kBadDigest},
        {"required, missing", package.Manifest(), 1, false, kBadDigest},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ClearLog();
        policy.SetDword(row.policy);
        {
            HeldProgram holder;
            if (row.held) holder.Start(HeldProgram::ProgramPath(), package.pkg() + "\\readme.txt");
            EXPECT_EQ(InstallKite(row.manifest.c_str()), row.result);
        }
        if (row.result != 0) {
            EXPECT_EQ(package.State(), package.before());
            continue;
        }
        EXPECT_EQ(ReadFileBytes(package.app() + "\\readme.txt"), "new notes\r\n");
        WriteFileBytes(package.app() + "\\readme.txt", "old notes\r\n");
    }
    ClearLog();
    policy.SetDword(0);
    InstallKite(rows[2].manifest.c_str());
    EXPECT_NE(ReadLog().find("refused command 1 (" + package.app() + "\\readme.txt): sha256 of " +
                             package.pkg() +
                             "\\readme.txt is 24ad3ee6303b5f041317e2150bd5436ba3167"
                             "5f1b5f0a73d4c76aa3d388621c2, expected " +
                             std::string(64, 'a') + "\r\n"),
              std::string::npos);
}

// A failing copy is tried four times across three waits of a second; all the while, the verified
// source stays held so that nobody can change it before it is copied.
TEST_F(InstallerTest, FailingCopyIsRetriedWhileTheVerifiedSourceIsHeld) {
    Package package("");
    PlatformOverride platform;
    static std::string src;
    static int copies;
    static std::vector<DWORD> waits;
    static int writable;
    src = package.pkg() + "\\readme.txt";
    copies = writable = 0;
    waits.clear();
    platform.calls().CopyFileA = [](LPCSTR, LPCSTR, BOOL) -> BOOL { return ++copies, FALSE; };
    platform.calls().Sleep = [](DWORD ms) {
        waits.push_back(ms);
        HANDLE file =
            ::CreateFileA(src.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr);
        if (file != INVALID_HANDLE_VALUE) writable += ::CloseHandle(file);
    };
    const std::string dst = package.app() + "\\readme.txt";
    const std::string digest = std::string("<sha256>") + kReadmeDigest + "</sha256>";
    EXPECT_EQ(InstallKite(package.ManifestOf(Package::Command(src, dst, 0, digest)).c_str()),
              static_cast<long>(E_FAIL));
    EXPECT_EQ(copies, 4);
    EXPECT_EQ(waits, std::vector<DWORD>(3, 1000));
    EXPECT_EQ(writable, 0);
    EXPECT_NE(ReadLog().find("CopyFile_s for file " + src + " to destination " + dst +
                             "failed in attempt  3\r\n"),
              std::string::npos);
    package.ExpectUndone();
}

// A new file held open cannot be deleted by the undo: the old one is put back over it at restart,
// and the product's own name is never scheduled for deletion.
TEST_F(InstallerTest, HeldNewFileIsReplacedByTheOldOneAtRestart) {
    Package package("kitecom_fail");
    const std::string key = "System\\CurrentControlSet\\Control\\Session Manager";
    RegistryValue pending(key, "PendingFileRenameOperations");
    pending.Delete();
    PlatformOverride platform;
    static std::unique_ptr<HeldProgram> holder;
    static std::string program;
    static decltype(kite::PlatformCalls::CreateProcessA) start;
    program = package.app() + "\\tww.exe";
    start = platform.calls().CreateProcessA;
    platform.calls().CreateProcessA = [](LPCSTR a, LPSTR b, LPSECURITY_ATTRIBUTES c,
                                         LPSECURITY_ATTRIBUTES d, BOOL e, DWORD f, LPVOID g,
                                         LPCSTR h, LPSTARTUPINFOA i, LPPROCESS_INFORMATION j) {
        if (!holder) {
            holder = std::make_unique<HeldProgram>();
            holder->Start(HeldProgram::ProgramPath(), program);
        }
        return start(a, b, c, d, e, f, g, h, i, j);
    };
    EXPECT_EQ(InstallKite(package.Manifest().c_str()), static_cast<long>(E_FAIL));
    holder.reset();
    // Pairs of source and target; a "!" before the target replaces it, an empty one deletes.
    std::vector<std::string> names;
    std::istringstream operations(RegistryValueBytes(key, "PendingFileRenameOperations"));
    for (std::string name; std::getline(operations, name, '\0');) names.push_back(name);
    bool replaced = false;
    for (std::size_t i = 0; i + 1 < names.size(); i += 2) {
        EXPECT_FALSE(names[i] == "\\??\\" + program && names[i + 1].empty());
        replaced = replaced || names[i + 1] == "!\\??\\" + program;
    }
    EXPECT_TRUE(replaced);
    EXPECT_TRUE(Exists(package.Marker()));
}

}  // namespace
}  // namespace kitetest
