#include "KITEUpdate.h"

#include "registration/RegistrationFixtures.h"
#include "support/FolderState.h"
#include "support/KiteServers.h"
#include "support/LogLines.h"

#include <regex>

namespace {

using kitetest::Lines;
using kitetest::LinesOfScope;
using State = std::map<std::string, std::string>;

struct Command {
    std::string src;
    std::string dst;
    std::string serverType;
};

// A product folder with an installed library and an installed, registered server, and a package
// that replaces both and adds a second server in a folder that does not exist yet.
class InstallKiteTest : public kitetest::RegistrationTest {
  public:
    InstallKiteTest() {
        servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
        kitetest::CreateFolders(product_);
        kitetest::CreateFolders(package_);
        kitetest::WriteFileBytes(product_ + "\\lib.dll", "installed library");
        kitetest::WriteFileBytes(product_ + "\\readme.txt", "installed readme");
        Copy("kitecom_ok.dll", product_ + "\\srv.dll");
        EXPECT_EQ(kitetest::RunProcess("regsvr32.exe /s " + kitetest::Quote(product_ + "\\srv.dll"))
                      .exitCode,
                  0u);
        kitetest::WriteFileBytes(package_ + "\\lib.dll", "new library");
        Copy("kitecom_ok.dll", package_ + "\\srv.dll");
        Copy("kitecom_ok.dll", package_ + "\\srv2.dll");
        commands_ = {{package_ + "\\lib.dll", product_ + "\\lib.dll", "0"},
                     {package_ + "\\srv.dll", product_ + "\\srv.dll", "2"},
                     {package_ + "\\srv2.dll", product_ + "\\plugins\\srv2.dll", "2"}};
        productBefore_ = kitetest::FolderState(product_);
        registryBefore_ = kitetest::RegistryState("Software\\KiteTest\\Servers");
    }

    static void Copy(const std::string& fixture, const std::string& to) {
        ASSERT_TRUE(::CopyFileA((kitetest::ExeFolder() + "\\fixtures\\" + fixture).c_str(),
                                to.c_str(), FALSE));
    }

    std::string Manifest() const {
        std::string text = "<commands><appdir>" + product_ + "</appdir>";
        for (const Command& c : commands_) {
            text += "<command><src>" + c.src + "</src><dst>" + c.dst + "</dst><register>" +
                    c.serverType + "</register></command>";
        }
        return text + "</commands>";
    }

    // The product folder apart from CriticalFixes, which keeps backups and the marker.
    State ProductFiles() const {
        State state = kitetest::FolderState(product_);
        for (auto it = state.begin(); it != state.end();) {
            it = it->first.compare(0, 13, "CriticalFixes") == 0 ? state.erase(it) : std::next(it);
        }
        return state;
    }

    // The installation's own events, without those of its copy and registration steps.
    std::vector<std::string> InstallEvents() const {
        std::vector<std::string> events;
        for (const std::string& event : servers_.EventMessages()) {
            if (event.find("Kite in CKiteInstaller::Install") != std::string::npos ||
                event.find(": CKiteInstaller::Install ") != std::string::npos ||
                event.find("Exceptions in CKiteInstaller::Install") != std::string::npos) {
                events.push_back(event);
            }
        }
        return events;
    }

    kitetest::KiteServers servers_;
    kitetest::KiteDll dll_;
    InstallKiteFn install_ = dll_.Get<InstallKiteFn>("InstallKite");
    std::string product_ = folder_ / "Tallowmere";
    std::string package_ = folder_ / "package";
    std::vector<Command> commands_;
    State productBefore_;
    State registryBefore_;
};

TEST_F(InstallKiteTest, ExportIsFoundByNameAndByOrdinal) {
    EXPECT_NE(dll_.ByName("InstallKite"), nullptr);
    EXPECT_EQ(dll_.ByOrdinal(4), dll_.ByName("InstallKite"));
}

TEST_F(InstallKiteTest, CommittedInstallationPlacesEveryFileAndLeavesNoTrace) {
    const std::string marker = product_ + "\\CriticalFixes\\force_apply_kite.dat";
    kitetest::CreateFolders(product_ + "\\CriticalFixes");
    kitetest::WriteFileBytes(marker, "");

    EXPECT_EQ(install_(Manifest().c_str()), 0);

    State expected = productBefore_;
    expected.erase("CriticalFixes");
    expected.erase("CriticalFixes\\force_apply_kite.dat");
    expected["lib.dll"] = "new library";
    expected["plugins"] = "<folder>";
    expected["plugins\\srv2.dll"] = kitetest::ReadFileBytes(package_ + "\\srv2.dll");
    EXPECT_EQ(ProductFiles(), expected);
    EXPECT_FALSE(kitetest::Exists(marker));
    EXPECT_EQ(
        kitetest::FolderState(product_ + "\\CriticalFixes"),
        (State{{"lib.dll", "installed library"},
               {"srv.dll", kitetest::ReadFileBytes(kitetest::FixturePath("kitecom_ok.dll"))}}));
    EXPECT_TRUE(Registered("srv2.dll"));
    EXPECT_EQ(
        LinesOfScope(ReadMaskedLog(), "CKiteInstaller::Install"),
        (std::vector<Lines>{{"Admin = 1", "CKiteInstaller::Install successful", "Return = 0"}}));
}

// Whatever step fails, the product folder and the registrations are as they were, and an empty
// marker orders the fix to be forced next time. Folders that the copy created are not journaled,
// so an emptied "plugins" folder stays where the third file was placed before the failure.
TEST_F(InstallKiteTest, FailureAtEachStepIsUndoneCompletely) {
    struct Row {
        const char* step;
        void (*arrange)(InstallKiteTest& test);
        bool exception;
        bool pluginsFolderLeft;
    };
    const Row rows[] = {
        {"copy of file 1",
         [](InstallKiteTest& t) { t.commands_[0].src = t.package_ + "\\missing1.dll"; }, false,
         false},
        {"copy of file 2",
         [](InstallKiteTest& t) { t.commands_[1].src = t.package_ + "\\missing2.dll"; }, false,
         false},
        {"copy of file 3",
         [](InstallKiteTest& t) { t.commands_[2].src = t.package_ + "\\missing3.dll"; }, false,
         false},
        {"registration of server 1",
         [](InstallKiteTest& t) { Copy("kitecom_fail.dll", t.package_ + "\\srv.dll"); }, false,
         true},
        {"registration of server 2",
         [](InstallKiteTest& t) { Copy("kitecom_fail.dll", t.package_ + "\\srv2.dll"); }, false,
         true},
        {"server factory",
         [](InstallKiteTest& t) {
             t.commands_[2].dst = t.product_ + "\\plugins\\srv2.tlb";
             t.commands_[2].serverType = "1";
         },
         true, true},
        {"manifest read", [](InstallKiteTest& t) { t.commands_[2].serverType = "two"; }, true,
         false},
    };
    const std::vector<Command> commands = commands_;
    for (const Row& row : rows) {
        commands_ = commands;
        Copy("kitecom_ok.dll", package_ + "\\srv.dll");
        Copy("kitecom_ok.dll", package_ + "\\srv2.dll");
        row.arrange(*this);
        kitetest::RemoveTree(product_ + "\\CriticalFixes");
        kitetest::RemoveTree(product_ + "\\plugins");
        ClearLog();
        servers_.Clear();
        servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));

        const ULONGLONG started = ::GetTickCount64();
        EXPECT_EQ(static_cast<unsigned long>(install_(Manifest().c_str())), 0x80004005UL)
            << row.step;
        // A missing source is tried four times, with three real waits of a second between.
        if (std::string(row.step).compare(0, 7, "copy of") == 0) {
            EXPECT_GE(::GetTickCount64() - started, 2900u) << row.step;
        }

        State expected = productBefore_;
        if (row.pluginsFolderLeft) expected["plugins"] = "<folder>";
        EXPECT_EQ(ProductFiles(), expected) << row.step;
        EXPECT_EQ(kitetest::RegistryState("Software\\KiteTest\\Servers"), registryBefore_)
            << row.step;
        EXPECT_EQ(kitetest::ReadFileBytes(product_ + "\\CriticalFixes\\force_apply_kite.dat"), "")
            << row.step;
        EXPECT_TRUE(kitetest::Exists(product_ + "\\CriticalFixes\\force_apply_kite.dat"))
            << row.step;
        EXPECT_FALSE(kitetest::Exists(product_ + "\\CriticalFixes\\kite_journal.dat")) << row.step;
        EXPECT_EQ(
            InstallEvents(),
            (std::vector<std::string>{
                "info: Admin access to install Kite in CKiteInstaller::Install",
                row.exception ? "error: Exceptions in CKiteInstaller::Install"
                              : "error: CKiteInstaller::Install failed, proceeding for Abort "}))
            << row.step;
        Lines trail = {"Admin = 1"};
        if (!row.exception)
            trail.push_back("CKiteInstaller::Install failed, proceeding for Abort ");
        trail.push_back("Return = 80004005");
        EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::Install"),
                  std::vector<Lines>{trail})
            << row.step;
    }
}

TEST_F(InstallKiteTest, ManifestThatCannotBeReadFailsBeforeTouchingAnything) {
    for (const char* manifest : {"", "<commands>", "<commands><command/></commands>"}) {
        EXPECT_EQ(static_cast<unsigned long>(install_(manifest)), 0x80004005UL) << manifest;
    }
    EXPECT_EQ(static_cast<unsigned long>(install_(nullptr)), 0x80004005UL);
    EXPECT_EQ(kitetest::FolderState(product_), productBefore_);
}

// The release and major version of the product program go with every event: "tww.exe" when it
// is there, else "tww32.exe"; without either the installation goes on without them. The facts
// belong to the process-wide reporter, so the row without a program comes first, while they are
// still unset.
TEST_F(InstallKiteTest, EventsCarryTheVersionOfTheProductProgram) {
    struct Row {
        const char* program;    // fixture copied as tww.exe, or nullptr
        const char* program32;  // fixture copied as tww32.exe, or nullptr
        std::string facts;
    };
    const Row rows[] = {
        {nullptr, nullptr, " SlipStream=\"\"& MajorVer=\"\"& KITEBuildNumber=\"\""},
        {nullptr, "tw-program-4012.exe",
         " SlipStream=\"4012\"& MajorVer=\"33\"& KITEBuildNumber=\"77\""},
        {"tw-program-4013.exe", "tw-program-4012.exe",
         " SlipStream=\"4013\"& MajorVer=\"33\"& KITEBuildNumber=\"77\""},
    };
    kitetest::WriteFileBytes(product_ + "\\BuildInfo.ini", "[BuildInfo]\r\nBuildNo=77\r\n");
    commands_ = {{package_ + "\\lib.dll", product_ + "\\lib.dll", "0"}};
    for (const Row& row : rows) {
        ::DeleteFileA((product_ + "\\tww.exe").c_str());
        ::DeleteFileA((product_ + "\\tww32.exe").c_str());
        if (row.program) Copy(row.program, product_ + "\\tww.exe");
        if (row.program32) Copy(row.program32, product_ + "\\tww32.exe");
        servers_.Clear();
        servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));

        EXPECT_EQ(install_(Manifest().c_str()), 0) << row.facts;

        const std::vector<kitetest::ReceivedEvent> events = servers_.Events();
        ASSERT_FALSE(events.empty()) << row.facts;
        for (const kitetest::ReceivedEvent& event : events) {
            const std::string tail = event.body.substr(event.body.rfind("& SlipStream=") + 1);
            EXPECT_EQ(tail, row.facts) << event.message;
        }
    }
}

}  // namespace
