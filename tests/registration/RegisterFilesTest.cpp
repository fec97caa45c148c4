#include "installer/KiteInstaller.h"

#include "registration/RegistrationFixtures.h"
#include "support/LogLines.h"
#include "support/Telemetry.h"

namespace {

using kitetest::Lines;
using kitetest::LinesOfScope;

class RegisterFilesTest : public kitetest::RegistrationTest {
  public:
    int Register(const std::vector<std::pair<std::string, int>>& commands) {
        std::string text = "<commands>";
        for (const auto& command : commands) {
            text += "<command><src>C:\\pkg\\x</src><dst>" + command.first + "</dst><register>" +
                    std::to_string(command.second) + "</register></command>";
        }
        const kite::ptree manifest = kite::ParseManifest((text + "</commands>").c_str());
        return installer_.RegisterFiles(manifest.get_child("commands"));
    }

    std::vector<std::string> Journal() const {
        std::vector<std::string> records;
        for (const kite::ActionRecord& r : installer_.journal()) {
            records.push_back(std::to_string(r.action) + " " + r.source + " " + r.destination);
        }
        return records;
    }

    kitetest::TelemetryToCollector telemetry_;
    kite::CKiteInstaller installer_;
};

// The 32-bit kinds exist only with folder support; a missing file and type 0 are skipped
// without a word.
TEST_F(RegisterFilesTest, EligibleCommandsAreRegisteredAndJournaledForUndo) {
    const std::string regsvr32 = InstallRecorder("C:\\windows\\syswow64\\regsvr32.exe");
    const std::string a = Fixture("kitecom_ok.dll", "a.dll");
    const std::string b = Fixture("kitecom_ok.dll", "b.dll");
    const std::string missing = folder_ / "servers\\missing.dll";
    for (bool folderSupport : {false, true}) {
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\KiteTest");
        ::DeleteFileA((regsvr32 + ".calls").c_str());
        installer_ = kite::CKiteInstaller();
        installer_.SetFolderSupport(folderSupport);
        ClearLog();
        telemetry_.servers.Clear();
        telemetry_.servers.ServeConfiguration(
            kitetest::CollectorConfiguration(telemetry_.servers.collector));

        EXPECT_EQ(Register({{a, 0}, {a, 5}, {b, 6}, {missing, 2}, {a, 2}, {b, 7}, {b, -1}}), 1);

        std::vector<std::string> expected;
        if (folderSupport) expected = {"5 " + a + " 5", "5 " + b + " 6"};
        expected.push_back("5 " + a + " 2");
        EXPECT_EQ(Journal(), expected) << folderSupport;
        EXPECT_EQ(Calls(regsvr32), folderSupport ? "\"" + regsvr32 + "\" /s \"" + a + "\"\n\"" +
                                                       regsvr32 + "\" /s \"" + b + "\"\n"
                                                 : "");
        EXPECT_TRUE(Registered("a.dll"));
        EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::RegisterFiles"),
                  std::vector<Lines>{{"CKiteInstaller::RegisterFiles Return: 1"}});
        EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "RegisterServer").size(), folderSupport ? 3u : 1u);
        EXPECT_EQ(telemetry_.servers.EventMessages(),
                  std::vector<std::string>{"info: CKiteInstaller::RegisterFiles Return: 1"});
    }
}

// The first failure ends the step: what was registered before stays journaled for the undo,
// and the rest is never tried.
TEST_F(RegisterFilesTest, SecondOfThreeFailsAndTheThirdIsNeverTried) {
    const std::string first = Fixture("kitecom_ok.dll", "first.dll");
    const std::string second = Fixture("kitecom_fail.dll", "second.dll");
    const std::string third = Fixture("kitecom_ok.dll", "third.dll");

    EXPECT_EQ(Register({{first, 2}, {second, 2}, {third, 2}}), 0);

    EXPECT_EQ(Journal(), std::vector<std::string>{"5 " + first + " 2"});
    EXPECT_TRUE(Registered("first.dll"));
    EXPECT_FALSE(Registered("third.dll"));
    const std::string log = ReadMaskedLog();
    EXPECT_EQ(LinesOfScope(log, "CKiteInstaller::RegisterFiles"),
              (std::vector<Lines>{
                  {"CKiteInstaller::RegisterFiles Failed to register server for : " + second + " 0",
                   "CKiteInstaller::RegisterFiles Return: 0"}}));
    EXPECT_EQ(
        telemetry_.servers.EventMessages(),
        (std::vector<std::string>{
            "error: CKiteInstaller::RegisterFiles Failed to register server for : " + second + " 0",
            "info: CKiteInstaller::RegisterFiles Return: 0"}));
    EXPECT_EQ(LinesOfScope(log, "RegisterServer"),
              (std::vector<Lines>{
                  {"File: " + first + " Register: 1ServerType: 2", "HRESULT = 0"},
                  {"File: " + second + " Register: 1ServerType: 2", "HRESULT = 80040201"}}));
}

TEST_F(RegisterFilesTest, RegisterServerWithoutATypeDoesNothing) {
    EXPECT_EQ(installer_.RegisterServer("C:\\nowhere\\x.dll", 1, 0), 0);
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "RegisterServer"),
              std::vector<Lines>{{"File: C:\\nowhere\\x.dll Register: 1ServerType: 0"}});
}

TEST_F(RegisterFilesTest, UnmappableServerThrowsThroughTheStep) {
    const std::string types = Fixture("kitecom_ok.dll", "types.tlb");
    EXPECT_THROW(Register({{types, 1}}), std::runtime_error);
    EXPECT_TRUE(installer_.journal().empty());
}

}  // namespace
