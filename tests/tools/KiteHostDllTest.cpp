#include "support/FolderState.h"
#include "support/KiteServers.h"
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

// A sample installation at release 12 and a package for it: kite.ini and manifest.xml.
class KiteHostUpdateTest : public KiteHostTest {
  public:
    KiteHostUpdateTest() {
        servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
        kitetest::CopyFileTo(kitetest::FixturePath("tw-program-4012.exe"), product_ / "tww.exe");
        kitetest::CopyFileTo(kitetest::FixturePath("tw-library-4012.dll"),
                             product_ / "BASECORE.DLL");
        kitetest::CopyFileTo(kitetest::FixturePath("tw-library-4012.dll"),
                             product_ / "Options.DLL");
        kitetest::WriteFileBytes(product_ / "lib.dll", "old library");
        kitetest::WriteFileBytes(package_ / "lib.dll", "new library");
        kitetest::WriteFileBytes(package_ / "notes.txt", "new notes");
        kitetest::WriteFileBytes(package_ / "kite.ini",
                                 "[KITEApplicability]\r\nSlipstreams=R11,R12\r\n");
        kitetest::WriteFileBytes(package_ / "manifest.xml",
                                 "<commands><appdir>" + product_.path() + "</appdir>" +
                                     Command("lib.dll") + Command("notes.txt") + "</commands>");
    }

    std::string Command(const std::string& name) {
        return "<command><src>" + package_ / name + "</src><dst>" + product_ / name +
               "</dst><register>0</register></command>";
    }

    kitetest::KiteServers servers_;
    kitetest::TempFolder product_{"Tallowmere"};
    kitetest::TempFolder package_{"package"};
};

TEST_F(KiteHostUpdateTest, InstallsAnApplicablePackageAndReports) {
    const kitetest::ProcessResult result = Host("update " + Quote(package_.path()));

    EXPECT_EQ(result.exitCode, 0u) << result.output;
    EXPECT_EQ(result.output,
              "Update of " + product_.path() + "\r\n  from package " + package_.path() +
                  "\r\n"
                  "  interrupted installation (RecoverKite) ...... none\r\n"
                  "  release level (GetTwSlipstream2) ............ 12\r\n"
                  "  package applies (IsKITEApplicable) .......... yes\r\n"
                  "  force marker (IsKITEToBeForceApplied) ....... no\r\n"
                  "  running product programs (GetCountOfTwInstances) 0\r\n"
                  "  InstallKite ................................. 0x00000000, installed: every "
                  "file placed and registered, the change committed\r\n"
                  "    replaced  " +
                  product_ / "lib.dll" +
                  "\r\n"
                  "    added     " +
                  product_ / "notes.txt" +
                  "\r\n"
                  "  log: " +
                  LogPath() + "\r\n");
    EXPECT_EQ(kitetest::ReadFileBytes(product_ / "lib.dll"), "new library");
    EXPECT_EQ(kitetest::ReadFileBytes(product_ / "notes.txt"), "new notes");
}

// The product runs from its folder: the host refuses before anything is touched.
TEST_F(KiteHostUpdateTest, RefusesWhileTheProductRunsAndTouchesNothing) {
    kitetest::CreateFolders(product_ / "CriticalFixes");
    kitetest::WriteFileBytes(product_ / "CriticalFixes\\force_apply_kite.dat", "");
    kitetest::CopyFileTo(kitetest::HeldProgram::ProgramPath(), product_ / "tww.exe");
    kitetest::HeldProgram running;
    running.Start(product_ / "tww.exe");
    const std::map<std::string, std::string> before = kitetest::FolderState(product_.path());

    const kitetest::ProcessResult result = Host("update " + Quote(package_.path()));

    EXPECT_EQ(result.exitCode, 4u) << result.output;
    EXPECT_NE(result.output.find("  force marker (IsKITEToBeForceApplied) ....... yes\r\n"
                                 "  running product programs (GetCountOfTwInstances) 1\r\n"
                                 "Refused: the product is running from this folder."),
              std::string::npos)
        << result.output;
    EXPECT_EQ(kitetest::FolderState(product_.path()), before);
    EXPECT_EQ(ReadLog().find("CKiteInstaller::Install"), std::string::npos);
}

}  // namespace
