#include "installer/KiteInstaller.h"

#include "registration/RegistrationFixtures.h"
#include "support/LogLines.h"

namespace {

using kitetest::Lines;
using kitetest::LinesOfScope;

class RegisterFilesTest : public kitetest::RegistrationTest {};

// Skipped without a word: type 0 or out of range (5 and 6 only with folder support) and a missing
// file. The first failure ends the walk: the kitecom_fail server's in-process status after
// regsvr32 failed, or, with folder support, the S_FALSE after a failing 32-bit regsvr32.
TEST_F(RegisterFilesTest, WalkRegistersAndJournalsUntilTheFirstFailure) {
    SetExitCode(InstallRecorder("C:\\windows\\syswow64\\regsvr32.exe"), 5);
    const std::string a = Fixture("kitecom_ok.dll", "a.dll"),
                      b = Fixture("kitecom_ok.dll", "b.dll");
    const std::string s = Fixture("kitecom_sfalse.dll", "s.dll"), missing = folder_ / "none.dll";
    const std::string f = Fixture("kitecom_fail.dll", "f.dll");
    kite::Plan plan;
    for (const auto& [dst, type] : std::vector<std::pair<std::string, int>>{{a, 0},
                                                                            {a, 5},
                                                                            {b, 6},
                                                                            {missing, 2},
                                                                            {b, 7},
                                                                            {b, -1},
                                                                            {a, 2},
                                                                            {s, 6},
                                                                            {f, 2},
                                                                            {b, 2}}) {
        plan.push_back(kite::PlannedCommand{"", dst, type, false, ""});
    }
    const std::tuple<bool, Lines, std::size_t, Lines> rows[] = {
        {false,
         {"5 " + a + " 2"},
         2,
         {"File: " + f + " Register: 1ServerType: 2", "HRESULT = 80040201"}},
        {true,
         {"5 " + a + " 5", "5 " + b + " 6", "5 " + a + " 2"},
         4,
         {"File: " + s + " Register: 1ServerType: 6", "HRESULT = 1"}}};
    for (const auto& [folderSupport, journal, registrations, failure] : rows) {
        ClearLog();
        kite::CKiteInstaller installer;
        installer.SetFolderSupport(folderSupport);
        EXPECT_FALSE(installer.RegisterFiles(plan));
        Lines records;
        for (const kite::ActionRecord& r : installer.journal()) {
            records.push_back(std::to_string(static_cast<int>(r.action)) + " " + r.source + " " +
                              kite::ShownDestination(r));
        }
        EXPECT_EQ(records, journal);
        const auto servers = LinesOfScope(ReadMaskedLog(), "RegisterServer");
        EXPECT_EQ(servers.size(), registrations);
        EXPECT_EQ(servers.back(), failure);
        const std::string failed =
            "CKiteInstaller::RegisterFiles Failed to register server for : " +
            failure[0].substr(6, failure[0].find(" Register:") - 6) + " 0";
        EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::RegisterFiles").at(0),
                  (Lines{failed, "CKiteInstaller::RegisterFiles Return: 0"}));
    }
}

}  // namespace
