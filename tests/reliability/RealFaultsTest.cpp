// Faults that the machine itself produces, not injected ones: files held by other programs, the
// product running, a read-only file, a source that goes away, a folder that is a file, and paths
// at the 260-character limit.
#include "KITEUpdate.h"

#include "reliability/ReliabilityFixture.h"
#include "support/HeldFile.h"

#include <cstdio>
#include <functional>
#include <memory>

namespace {

using kitetest::RunOutcome;
using State = std::map<std::string, std::string>;

class RealFaultsTest : public kitetest::ReliabilityFixture {
  public:
    std::unique_ptr<kitetest::HeldFile> heldFile_;
    std::unique_ptr<kitetest::HeldProgram> heldProgram_;
};

void VoidSleep(DWORD) {}

// The package's program goes away for real between its backup and its copy: the rename aside
// comes in between.
std::string g_vanishing;
decltype(&::MoveFileA) g_realMoveFileA = nullptr;
BOOL WINAPI MoveAfterSourceVanished(LPCSTR from, LPCSTR to) {
    if (!g_vanishing.empty()) {
        ::DeleteFileA(g_vanishing.c_str());
        g_vanishing.clear();
    }
    return g_realMoveFileA(from, to);
}

// Extra entries that are old files left under a GUID name beside their own, as a file that could
// not be deleted leaves them.
bool OnlyGuidNamesLeft(const State& expected, const State& actual) {
    for (const auto& entry : actual) {
        if (expected.count(entry.first) != 0) continue;
        const std::string::size_type slash = entry.first.rfind('\\');
        const std::string name =
            slash == std::string::npos ? entry.first : entry.first.substr(slash + 1);
        if (name.empty() || name[0] != '{') return false;
    }
    for (const auto& entry : expected) {
        const auto found = actual.find(entry.first);
        if (found == actual.end() || found->second != entry.second) return false;
    }
    return true;
}

TEST_F(RealFaultsTest, EveryRealFaultIsUndoneOrCommittedWhole) {
    enum class Expect { kUndone, kCommitted, kCommittedAsideKept };
    struct Row {
        const char* fault;
        // Changes to the product folder, made before its state is read.
        std::function<void(RealFaultsTest&)> prepare;
        // Holders and platform entries, set up after the state is read.
        std::function<void(RealFaultsTest&)> hold;
        Expect expect;
    };
    const Row rows[] = {
        {"a replaced text file held without sharing", nullptr,
         [](RealFaultsTest& t) {
             t.heldFile_ = std::make_unique<kitetest::HeldFile>(t.product_ + "\\readme.txt");
         },
         Expect::kUndone},
        {"a program file held without sharing (its backup cannot be read)", nullptr,
         [](RealFaultsTest& t) {
             t.heldFile_ = std::make_unique<kitetest::HeldFile>(t.product_ + "\\BASECORE.DLL");
         },
         Expect::kUndone},
        {"the product running from the folder",
         [](RealFaultsTest& t) {
             ::DeleteFileA((t.product_ + "\\tww.exe").c_str());
             kitetest::CopyFileTo(kitetest::HeldProgram::ProgramPath(), t.product_ + "\\tww.exe");
         },
         [](RealFaultsTest& t) {
             t.heldProgram_ = std::make_unique<kitetest::HeldProgram>();
             t.heldProgram_->Start(t.product_ + "\\tww.exe");
         },
         Expect::kCommittedAsideKept},
        {"a read-only destination",
         [](RealFaultsTest& t) {
             ::SetFileAttributesA((t.product_ + "\\readme.txt").c_str(), FILE_ATTRIBUTE_READONLY);
         },
         nullptr, Expect::kCommittedAsideKept},
        {"a source that disappears between the backup and the copy", nullptr,
         [](RealFaultsTest& t) {
             g_vanishing = t.package_ + "\\tww.exe";
             g_realMoveFileA = kite::Platform().MoveFileA;
             kite::Platform().MoveFileA = MoveAfterSourceVanished;
         },
         Expect::kUndone},
        {"a destination folder that is a file",
         [](RealFaultsTest& t) { kitetest::WriteFileBytes(t.product_ + "\\plugins", "a file"); },
         nullptr, Expect::kUndone},
    };
    for (const Row& row : rows) {
        kitetest::PlatformOverride platform;
        platform.calls().Sleep = VoidSleep;
        ArrangeRun(false);
        kitetest::CopyFileTo(kitetest::FixturePath("tw27-program-4009.exe"),
                             package_ + "\\tww.exe");
        if (row.prepare) row.prepare(*this);
        before_ = ProductFiles();
        if (row.hold) row.hold(*this);

        const HRESULT result = InstallKite(Manifest().c_str());

        heldFile_.reset();
        if (heldProgram_) heldProgram_->Stop();
        heldProgram_.reset();
        platform.calls().MoveFileA = kite::Platform().MoveFileA;
        const RunOutcome outcome = Examine(result);
        std::printf("%-66s result %08lx, %s%s\n", row.fault, static_cast<unsigned long>(result),
                    outcome.intact ? "intact" : "differs:", outcome.difference.c_str());
        EXPECT_TRUE(outcome.noBytesLost) << row.fault << outcome.difference;
        switch (row.expect) {
            case Expect::kUndone:
                EXPECT_EQ(static_cast<unsigned long>(result), 0x80004005UL) << row.fault;
                EXPECT_TRUE(outcome.intact) << row.fault << outcome.difference;
                break;
            case Expect::kCommitted:
                EXPECT_EQ(result, S_OK) << row.fault;
                EXPECT_TRUE(outcome.intact) << row.fault << outcome.difference;
                break;
            case Expect::kCommittedAsideKept:
                // An old file that Commit cannot delete stays under its GUID name, scheduled for
                // deletion at restart; everything else is as the package wants.
                EXPECT_EQ(result, S_OK) << row.fault;
                EXPECT_TRUE(OnlyGuidNamesLeft(Committed(), ProductFiles()))
                    << row.fault << outcome.difference;
                break;
        }
        if (kitetest::Exists(product_ + "\\readme.txt")) {
            ::SetFileAttributesA((product_ + "\\readme.txt").c_str(), FILE_ATTRIBUTE_NORMAL);
        }
        for (const auto& entry : ProductFiles()) {
            ::SetFileAttributesA((product_ + "\\" + entry.first).c_str(), FILE_ATTRIBUTE_NORMAL);
        }
    }
}

// Paths at the 260-character limit, through the DLL in a host of its own: a path that does not
// fit its buffer ends the host at once (0xC0000417); a path that just fits installs. A host that
// ends after its installation began leaves its journal, and recovery settles it like any crash:
// the folder as before, with the marker that orders the fix to be forced.
TEST_F(RealFaultsTest, PathsAtTheLimit) {
    struct Row {
        const char* what;
        std::size_t folderChars;  // length of the product folder's path
        DWORD exitCode;
    };
    const Row rows[] = {
        {"the file's path is 259 characters: the marker's does not fit", 259 - 11, 0xC0000417UL},
        {"the marker just fits, the GUID name beside the file does not", 259 - 35, 0xC0000417UL},
        {"the GUID name beside the file just fits", 259 - 39, 0},
    };
    for (const Row& row : rows) {
        std::string folder = folder_ / "deep";
        while (folder.size() < row.folderChars) {
            const std::size_t room = row.folderChars - folder.size() - 1;
            const std::size_t chars = room <= 100 ? room : room - 100 >= 2 ? 100 : 90;
            folder += "\\" + std::string(chars, 'd');
        }
        ASSERT_EQ(folder.size(), row.folderChars) << row.what;
        kitetest::RemoveTree(folder_ / "deep");
        kitetest::CreateFolders(folder);
        kitetest::WriteFileBytes(folder + "\\readme.txt", "installed readme");
        const std::string manifest =
            "<commands><appdir>" + folder + "</appdir><command><src>" + package_ +
            "\\readme.txt</src><dst>" + folder +
            "\\readme.txt</dst><register>0</register></command></commands>";
        kitetest::WriteFileBytes(folder_ / "manifest.xml", manifest);
        const State before = kitetest::FolderState(folder_ / "deep");

        const kitetest::ProcessResult run =
            kitetest::RunProcess(kitetest::Quote(kitetest::ExeFolder() + "\\kiteinstall.exe") +
                                 " " + kitetest::Quote(folder_ / "manifest.xml"));

        std::printf("%-62s exit %08lx\n", row.what, static_cast<unsigned long>(run.exitCode));
        EXPECT_EQ(run.exitCode, row.exitCode) << row.what;
        State expected = before;
        const std::string relative = folder.substr((folder_ / "deep\\").size());
        if (row.exitCode == 0) expected[relative + "\\readme.txt"] = "new readme";
        if (kitetest::Exists(folder + "\\CriticalFixes\\kite_journal.dat")) {
            EXPECT_EQ(RecoverKite(folder.c_str()), 1) << row.what;
            expected[relative + "\\CriticalFixes"] = "<folder>";
            expected[relative + "\\CriticalFixes\\force_apply_kite.dat"] = "";
        }
        EXPECT_EQ(kitetest::FolderState(folder_ / "deep"), expected) << row.what;
    }
}

}  // namespace
