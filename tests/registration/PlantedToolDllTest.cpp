#include "registration/RegistrationFixtures.h"

namespace {

using kitetest::Quote;

class PlantedToolTest : public kitetest::RegistrationTest {};

// regsvr32 copies planted beside the host program and in its current folder never run: the
// installation registers its server through the system folder's regsvr32.
TEST_F(PlantedToolTest, PlantedRegsvr32NeverRuns) {
    const std::string host = folder_ / "host", product = folder_ / "product";
    const std::string planted[] = {InstallRecorder(host + "\\regsvr32.exe"),
                                   InstallRecorder(folder_ / "regsvr32.exe")};
    kitetest::CopyFileTo(kitetest::FixturePath("kitecrash.exe"), host + "\\kitecrash.exe");
    kitetest::CreateFolders(product);
    kitetest::WriteFileBytes(host + "\\kite.xml",
                             "<commands><appdir>" + product + "</appdir><command><src>" +
                                 Fixture("kitecom_ok.dll", "srv.dll") + "</src><dst>" + product +
                                 "\\srv.dll</dst><register>2</register></command></commands>");
    char previous[MAX_PATH] = {}, system[MAX_PATH] = {};
    ::GetCurrentDirectoryA(MAX_PATH, previous);
    ::SetCurrentDirectoryA(folder_.path().c_str());
    const kitetest::ProcessResult installed =
        kitetest::RunProcess(Quote(host + "\\kitecrash.exe") + " 0 install " +
                             Quote(host + "\\kite.xml") + " " + Quote(product));
    ::SetCurrentDirectoryA(previous);
    EXPECT_EQ(installed.exitCode, 0u) << installed.output;
    EXPECT_TRUE(Registered("srv.dll"));
    for (const std::string& tool : planted) EXPECT_EQ(Calls(tool), "") << tool;
    const std::string regsvr32 = std::string(system, ::GetSystemDirectoryA(system, MAX_PATH));
    EXPECT_NE(
        ReadLog().find(Quote(regsvr32 + "\\regsvr32.exe") + " /s " + Quote(product + "\\srv.dll")),
        std::string::npos);
}

}  // namespace
