#include "support/KiteTest.h"

namespace {

using kitetest::Quote;

class KiteHostTest : public kitetest::LogTest {
  public:
    kitetest::ProcessResult Host(const std::string& arguments) {
        return kitetest::RunProcess(Quote(kitetest::ExeFolder() + "\\kitehost.exe") + " " +
                                    arguments);
    }
};

TEST_F(KiteHostTest, PrintsWhatTheExportsAnswer) {
    kitetest::TempFolder package("package");
    kitetest::WriteFileBytes(package / "kite.ini", "[KITEApplicability]\r\nSlipstreams=R3,R5\r\n");
    kitetest::CreateFolders(package / "CriticalFixes");
    kitetest::WriteFileBytes(package / "CriticalFixes\\force_apply_kite.dat", "");

    struct Row {
        std::string arguments;
        std::string output;
    };
    const Row rows[] = {
        {"applicable 5 " + Quote(package / "kite.ini"),
         "IsKITEApplicable(5, " + package / "kite.ini" +
             ") = 1 (the package applies to this release)\r\n"},
        {"applicable 4 " + Quote(package / "kite.ini"),
         "IsKITEApplicable(4, " + package / "kite.ini" + ") = 0 (the package does not apply)\r\n"},
        {"force " + Quote(package.path()), "IsKITEToBeForceApplied(" + package.path() +
                                               ") = 1 (a force-apply marker is present)\r\n"},
    };
    for (const Row& row : rows) {
        const kitetest::ProcessResult result = Host(row.arguments);
        EXPECT_EQ(result.exitCode, 0u) << row.arguments;
        EXPECT_EQ(result.output, row.output) << row.arguments;
    }
    EXPECT_NE(ReadLog().find("Entering IsKITEApplicable"), std::string::npos);
}

TEST_F(KiteHostTest, RefusesUnknownCommandsAndAMissingDll) {
    EXPECT_EQ(Host("frobnicate").exitCode, 2u);
    EXPECT_EQ(Host("force").exitCode, 2u);
    const kitetest::ProcessResult missing = Host("--dll C:\\nowhere\\KITEUpdate.dll force C:\\x");
    EXPECT_EQ(missing.exitCode, 3u);
    EXPECT_NE(missing.output.find("cannot load C:\\nowhere\\KITEUpdate.dll"), std::string::npos);
}

}  // namespace
