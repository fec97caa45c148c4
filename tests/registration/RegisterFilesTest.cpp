#include "installer/KiteInstaller.h"

#include "registration/RegistrationFixtures.h"
#include "support/LogLines.h"
#include "support/Telemetry.h"

namespace {

using kitetest::Lines;
using kitetest::LinesOfScope;

class RegisterFilesTest : public kitetest::RegistrationTest {
  public:
    kitetest::TelemetryToCollector telemetry_;
};

// Skipped without a word: type 0 or out of range (5 and 6 exist only with folder support) and a
// missing file. The first failure (here the S_FALSE of the in-process attempt that follows a
// failing 32-bit regsvr32) ends the walk; what was registered before stays journaled for undo.
TEST_F(RegisterFilesTest, WalkRegistersAndJournalsUntilTheFirstFailure) {
    SetExitCode(InstallRecorder("C:\\windows\\syswow64\\regsvr32.exe"), 5);
    const std::string a = Fixture("kitecom_ok.dll", "a.dll"),
                      b = Fixture("kitecom_ok.dll", "b.dll");
    const std::string s = Fixture("kitecom_sfalse.dll", "s.dll"), missing = folder_ / "none.dll";
    std::string text = "<commands>";
    for (const auto& command : std::vector<std::pair<std::string, int>>{
             {a, 0}, {a, 5}, {b, 6}, {missing, 2}, {b, 7}, {b, -1}, {a, 2}, {s, 6}, {b, 2}}) {
        text += "<command><dst>" + command.first + "</dst><register>" +
                std::to_string(command.second) + "</register></command>";
    }
    const kite::ptree manifest = kite::ParseManifest((text + "</commands>").c_str());
    for (bool folderSupport : {false, true}) {
        ClearLog();
        telemetry_.servers.Clear();
        telemetry_.servers.ServeConfiguration(
            kitetest::CollectorConfiguration(telemetry_.servers.collector));
        kite::CKiteInstaller installer;
        installer.SetFolderSupport(folderSupport);
        EXPECT_EQ(installer.RegisterFiles(manifest.get_child("commands")), folderSupport ? 0 : 1);
        std::vector<std::string> journal;
        for (const kite::ActionRecord& r : installer.journal()) {
            journal.push_back(std::to_string(r.action) + " " + r.source + " " + r.destination);
        }
        const std::string failed =
            "CKiteInstaller::RegisterFiles Failed to register server for : " + s + " 0";
        const std::string log = ReadMaskedLog();
        if (!folderSupport) {
            EXPECT_EQ(journal, (Lines{"5 " + a + " 2", "5 " + b + " 2"}));
            EXPECT_EQ(LinesOfScope(log, "CKiteInstaller::RegisterFiles").at(0),
                      Lines{"CKiteInstaller::RegisterFiles Return: 1"});
            continue;
        }
        EXPECT_EQ(journal, (Lines{"5 " + a + " 5", "5 " + b + " 6", "5 " + a + " 2"}));
        EXPECT_EQ(LinesOfScope(log, "RegisterServer").size(), 4u);
        EXPECT_EQ(LinesOfScope(log, "RegisterServer").back(),
                  (Lines{"File: " + s + " Register: 1ServerType: 6", "HRESULT = 1"}));
        EXPECT_EQ(LinesOfScope(log, "CKiteInstaller::RegisterFiles").at(0),
                  (Lines{failed, "CKiteInstaller::RegisterFiles Return: 0"}));
        EXPECT_EQ(telemetry_.servers.EventMessages(),
                  (Lines{"error: " + failed, "info: CKiteInstaller::RegisterFiles Return: 0"}));
    }
}

}  // namespace
