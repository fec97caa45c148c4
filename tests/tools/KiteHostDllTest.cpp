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

TEST_F(KiteHostTest, PrintsTheDetectedReleaseAndTheRunningPrograms) {
    kitetest::TempFolder product("product");
    kitetest::CopyFileTo(kitetest::FixturePath("tw-program-4012.exe"), product / "tww.exe");
    kitetest::CopyFileTo(kitetest::FixturePath("tw-library-4012.dll"), product / "BASECORE.DLL");
    kitetest::CopyFileTo(kitetest::FixturePath("tw-library-4012.dll"), product / "Options.DLL");
    kitetest::TempFolder programs("programs");
    kitetest::CopyFileTo(kitetest::HeldProgram::ProgramPath(), programs / "tww.exe");
    kitetest::HeldProgram running;
    running.Start(programs / "tww.exe");
    const std::string suffix = "kitehost-" + std::to_string(::GetCurrentProcessId());
    const std::string key = "SOFTWARE\\Tolvix\\Tallowmere\\33.0\\" + suffix;
    kitetest::RegistryKey versionKey(key);
    kitetest::RegistryValue version(key, "TWVersion");
    version.SetString("33.012.200");

    struct Row {
        std::string arguments;
        std::string output;
    };
    const Row rows[] = {
        {"slipstream " + Quote(product.path()),
         "GetTwSlipstream2(" + product.path() +
             ") = 12 (the release level of the product files)\r\n"},
        {"slipstream C:\\nowhere",
         "GetTwSlipstream2(C:\\nowhere) = -1 (the product files "
         "disagree or cannot be read)\r\n"},
        {"slipstream-registry 33 " + suffix,
         "GetTwSlipstream(33, " + suffix +
             ") = 12 (the release level recorded in the registry)\r\n"},
        {"instances", "GetCountOfTwInstances(null) = 1 (product programs running)\r\n"},
        {"instances " + Quote(programs.path()),
         "GetCountOfTwInstances(" + programs.path() +
             ") = 1 (product programs running from that folder)\r\n"},
    };
    for (const Row& row : rows) {
        const kitetest::ProcessResult result = Host(row.arguments);
        EXPECT_EQ(result.exitCode, 0u) << row.arguments;
        EXPECT_EQ(result.output, row.output) << row.arguments;
    }
}

TEST_F(KiteHostTest, RefusesUnknownCommandsAndAMissingDll) {
    EXPECT_EQ(Host("frobnicate").exitCode, 2u);
    EXPECT_EQ(Host("force").exitCode, 2u);
    EXPECT_EQ(Host("slipstream-registry 33").exitCode, 2u);
    EXPECT_EQ(Host("instances C:\\a C:\\b").exitCode, 2u);
    const kitetest::ProcessResult missing = Host("--dll C:\\nowhere\\KITEUpdate.dll force C:\\x");
    EXPECT_EQ(missing.exitCode, 3u);
    EXPECT_NE(missing.output.find("cannot load C:\\nowhere\\KITEUpdate.dll"), std::string::npos);
}

}  // namespace
