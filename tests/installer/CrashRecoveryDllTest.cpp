#include "KITEUpdate.h"

#include "registration/RegistrationFixtures.h"
#include "support/FolderState.h"
#include "support/KiteServers.h"

#include <cstdio>
#include <regex>

namespace {

using State = std::map<std::string, std::string>;

struct CrashRun {
    bool crashed;
    long steps;  // when it ran to its end
};

// A package of six files into a product folder with an installed library, a text file and a
// registered server: new and replaced files, a nested new folder, two servers (one replacing the
// registered one), backups on (the product program is absent, so no policy decides).
class CrashRecoveryTest : public kitetest::RegistrationTest {
  public:
    CrashRecoveryTest() {
        servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
        kitetest::CreateFolders(package_);
        kitetest::WriteFileBytes(package_ + "\\lib.dll", "new library");
        kitetest::WriteFileBytes(package_ + "\\readme.txt", "new readme");
        kitetest::WriteFileBytes(package_ + "\\data.bin", "new data");
        kitetest::WriteFileBytes(package_ + "\\deep.txt", "deep");
        kitetest::CopyFileTo(kitetest::FixturePath("kitecom_ok.dll"), package_ + "\\srv.dll");
        kitetest::CopyFileTo(kitetest::FixturePath("kitecom_ok.dll"), package_ + "\\srv2.dll");
        const std::pair<const char*, const char*> commands[] = {
            {"lib.dll", "0"}, {"readme.txt", "0"},        {"data.bin", "0"},
            {"srv.dll", "2"}, {"plugins\\srv2.dll", "2"}, {"a\\b\\deep.txt", "0"}};
        std::string manifest = "<commands><appdir>" + product_ + "</appdir>";
        for (const auto& c : commands) {
            const std::string name =
                std::string(c.first).substr(std::string(c.first).rfind('\\') + 1);
            manifest += "<command><src>" + package_ + "\\" + name + "</src><dst>" + product_ +
                        "\\" + c.first + "</dst><register>" + c.second + "</register></command>";
        }
        kitetest::WriteFileBytes(folder_ / "manifest.xml", manifest + "</commands>");
        ResetProduct();
        before_ = ProductFiles();
        registryBefore_ = kitetest::RegistryState("Software\\KiteTest\\Servers");
    }

    void ResetProduct() {
        kitetest::RemoveTree(product_);
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\KiteTest");
        kitetest::CreateFolders(product_);
        kitetest::WriteFileBytes(product_ + "\\lib.dll", "installed library");
        kitetest::WriteFileBytes(product_ + "\\readme.txt", "installed readme");
        kitetest::CopyFileTo(kitetest::FixturePath("kitecom_ok.dll"), product_ + "\\srv.dll");
        ASSERT_EQ(kitetest::RunProcess("regsvr32.exe /s " + kitetest::Quote(product_ + "\\srv.dll"))
                      .exitCode,
                  0u);
    }

    CrashRun Crash(const std::string& mode, const std::string& target, long k) {
        const kitetest::ProcessResult run =
            kitetest::RunProcess(kitetest::Quote(kitetest::FixturePath("kitecrash.exe")) + " " +
                                 mode + " " + kitetest::Quote(target) + " " + std::to_string(k));
        long steps = -1;
        std::sscanf(run.output.c_str(), "steps=%ld", &steps);
        EXPECT_TRUE(run.exitCode == 99 || run.exitCode == 0) << run.output;
        return CrashRun{run.exitCode == 99, steps};
    }

    // The product folder apart from CriticalFixes (backups and the marker) and the folders that
    // the copy created, which no journal holds and which stay, emptied, after an undo.
    State ProductFiles() const {
        State state = kitetest::FolderState(product_);
        for (auto it = state.begin(); it != state.end();) {
            const bool created = it->second == "<folder>" && before_.count(it->first) == 0;
            it = it->first.compare(0, 13, "CriticalFixes") == 0 || created ? state.erase(it)
                                                                           : std::next(it);
        }
        return state;
    }

    // What a committed installation leaves: every file of the package in place.
    State Committed() const {
        State state = before_;
        state["lib.dll"] = "new library";
        state["readme.txt"] = "new readme";
        state["data.bin"] = "new data";
        state["a\\b\\deep.txt"] = "deep";
        state["plugins\\srv2.dll"] = kitetest::ReadFileBytes(package_ + "\\srv2.dll");
        return state;
    }

    // After a recovery: undone, or committed; never anything between, and no journal left. A
    // crash after the very last step (the journal's deletion) leaves nothing pending: then the
    // state is the one that run reached.
    void ExpectSettled(long recovered, bool whenNothingPendingUndone, const std::string& what) {
        ASSERT_TRUE(recovered >= 0 && recovered <= 2) << what << ": " << recovered;
        EXPECT_FALSE(kitetest::Exists(product_ + "\\CriticalFixes\\kite_journal.dat")) << what;
        if (recovered == 1 || (recovered == 0 && whenNothingPendingUndone)) {
            EXPECT_EQ(ProductFiles(), before_) << what;
            EXPECT_EQ(kitetest::RegistryState("Software\\KiteTest\\Servers"), registryBefore_)
                << what;
        } else {
            EXPECT_EQ(ProductFiles(), Committed()) << what;
            EXPECT_TRUE(Registered("srv2.dll")) << what;
        }
    }

    kitetest::KiteServers servers_;
    kitetest::KiteDll dll_;
    RecoverKiteFn recover_ = dll_.Get<RecoverKiteFn>("RecoverKite");
    std::string product_ = folder_ / "Tallowmere";
    std::string package_ = folder_ / "package";
    State before_;
    State registryBefore_;
};

TEST_F(CrashRecoveryTest, ExportIsFoundByNameAndByOrdinalAndAnswersNothingPending) {
    EXPECT_EQ(dll_.ByOrdinal(7), dll_.ByName("RecoverKite"));
    EXPECT_EQ(recover_(product_.c_str()), 0);
    EXPECT_EQ(static_cast<unsigned long>(recover_(nullptr)), 0x80070057UL);
}

// The installation is cut short after every step that changes the folder or the registry; a new
// process recovers each time, and finds the product as it was, or (once the commit began) as
// the installation meant it to be.
TEST_F(CrashRecoveryTest, EveryCrashOfAnInstallationIsRecovered) {
    const CrashRun whole = Crash("install", folder_ / "manifest.xml", 0);
    ASSERT_FALSE(whole.crashed);
    ASSERT_GT(whole.steps, 10);
    EXPECT_EQ(ProductFiles(), Committed());
    int undone = 0;
    int finished = 0;
    for (long k = 1; k <= whole.steps; ++k) {
        ResetProduct();
        const std::string what = "crash after step " + std::to_string(k);
        ASSERT_TRUE(Crash("install", folder_ / "manifest.xml", k).crashed) << what;
        const long recovered = recover_(product_.c_str());
        ExpectSettled(recovered, false, what);
        (recovered == 1 ? undone : finished)++;
        if (recovered == 1) {
            EXPECT_EQ(kitetest::ReadFileBytes(product_ + "\\CriticalFixes\\force_apply_kite.dat"),
                      "")
                << what;
        }
    }
    std::printf("crashes recovered: %ld (undone %d, commit finished or complete %d)\n", whole.steps,
                undone, finished);
    EXPECT_GT(undone, 0);
    EXPECT_GT(finished, 0);
}

// A recovery that is itself cut short is finished by the next one. The installation is cut
// short where a recovery has most to keep track of: right after a replaced server's rename and
// copy were announced (before the rename), and with both servers registered (before the commit).
TEST_F(CrashRecoveryTest, CrashDuringRecoveryIsRecoveredAgain) {
    const CrashRun whole = Crash("install", folder_ / "manifest.xml", 0);
    for (const long crashInstallAt : {18L, 31L}) {
        ASSERT_GT(whole.steps, crashInstallAt);
        for (long j = 1;; ++j) {
            ResetProduct();
            ASSERT_TRUE(Crash("install", folder_ / "manifest.xml", crashInstallAt).crashed);
            const CrashRun recovery = Crash("recover", product_, j);
            const std::string what = "installation cut short after step " +
                                     std::to_string(crashInstallAt) + ", its recovery after step " +
                                     std::to_string(j);
            if (!recovery.crashed) {
                std::printf(
                    "installation cut short after step %ld: %ld recoveries cut short and "
                    "recovered again\n",
                    crashInstallAt, j - 1);
                EXPECT_GT(j, 5);
                break;
            }
            ExpectSettled(recover_(product_.c_str()), true, what);
        }
    }
}

// An installation started over an interrupted one settles it first.
TEST_F(CrashRecoveryTest, InstallKiteRecoversBeforeItStarts) {
    ASSERT_TRUE(Crash("install", folder_ / "manifest.xml", 12).crashed);
    ClearLog();
    const InstallKiteFn install = dll_.Get<InstallKiteFn>("InstallKite");
    EXPECT_EQ(install(kitetest::ReadFileBytes(folder_ / "manifest.xml").c_str()), 0);
    EXPECT_EQ(ProductFiles(), Committed());
    EXPECT_FALSE(kitetest::Exists(product_ + "\\CriticalFixes\\kite_journal.dat"));
    const std::string log = ReadLog();
    EXPECT_NE(log.find("Entering RecoverKite"), std::string::npos);
    EXPECT_LT(log.find("Entering RecoverKite"), log.find("Entering CKiteInstaller::CopyFiles"));
}

}  // namespace
