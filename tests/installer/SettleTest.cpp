#include "installer/KiteInstaller.h"

#include "registration/RegistrationFixtures.h"
#include "support/FolderState.h"
#include "support/HeldFile.h"
#include "support/LogLines.h"
#include "support/PlatformOverride.h"

namespace {

using kitetest::Lines;
using kitetest::LinesOfScope;
using kitetest::Quote;
using kitetest::ReadFileBytes;

class SettleTest : public kitetest::RegistrationTest {
  public:
    std::string Aside(const std::string& name) {
        return folder_ / ("servers\\{0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F" + name + "}");
    }
    std::size_t Position(const std::string& text) const {
        const std::size_t at = ReadLog().find(text);
        EXPECT_NE(at, std::string::npos) << text;
        return at;
    }
    kite::CKiteInstaller installer_;
};

// A replaced server is undone in journal order 4, 1, 3 walked backwards: the new file goes, the
// old one comes back under its name, then it is registered again.
TEST_F(SettleTest, UndoDeletesRenamesBackThenRegistersAgain) {
    const std::string server = Fixture("kitecom_fail.dll", "srv.dll");
    const std::string aside = Aside("0");
    ASSERT_TRUE(::CopyFileA((kitetest::ExeFolder() + "\\fixtures\\kitecom_ok.dll").c_str(),
                            aside.c_str(), FALSE));
    installer_.RecordAction(server, "2", kite::kRegisterAgain);
    installer_.RecordAction(server, aside, kite::kRenamedAside);
    installer_.RecordAction(server, "", kite::kFilePlaced);
    ClearLog();

    installer_.Abort();

    EXPECT_TRUE(installer_.journal().empty());
    EXPECT_EQ(ReadFileBytes(server),
              ReadFileBytes(kitetest::ExeFolder() + "\\fixtures\\kitecom_ok.dll"));
    EXPECT_FALSE(kitetest::Exists(aside));
    EXPECT_TRUE(Registered("srv.dll"));
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::Abort"),
              std::vector<Lines>{{"Rename: " + aside + " => " + server + " ret = 1"}});
    EXPECT_LT(Position("Deleting " + server + " - Success."), Position("Rename: "));
    EXPECT_LT(Position("Rename: "), Position("File: " + server + " Register: 1ServerType: 2"));
}

// A new file that another program holds cannot go now: it is scheduled for deletion at restart,
// and the old file, whose name is still taken, stays under its GUID name.
TEST_F(SettleTest, LockedNewFileIsScheduledAndTheOldOneStaysAside) {
    kitetest::RegistryValue pending("System\\CurrentControlSet\\Control\\Session Manager",
                                    "PendingFileRenameOperations");
    pending.Delete();
    const std::string placed = folder_ / "placed.dll";
    const std::string aside = folder_ / "{GUID}";
    kitetest::WriteFileBytes(placed, "new");
    kitetest::WriteFileBytes(aside, "old");
    kitetest::HeldFile held(placed);
    installer_.RecordAction(placed, aside, kite::kRenamedAside);
    installer_.RecordAction(placed, "", kite::kFilePlaced);
    ClearLog();

    installer_.Abort();

    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::DeleteFile_S"),
              std::vector<Lines>{
                  {"Deleting " + placed + " - Failed. File will be deleted upon system reboot."}});
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::Abort"),
              std::vector<Lines>{{"Rename: " + aside + " => " + placed + " ret = 0"}});
    EXPECT_EQ(ReadFileBytes(aside), "old");
    EXPECT_NE(kitetest::RegistryValueBytes("System\\CurrentControlSet\\Control\\Session Manager",
                                           "PendingFileRenameOperations")
                  .find(placed.substr(3)),
              std::string::npos);
}

TEST_F(SettleTest, VanishedAsideFileIsSkippedAndTheMarkerIsLeftEmpty) {
    const std::string marker = folder_ / "product\\CriticalFixes\\force_apply_kite.dat";
    installer_.RecordAction(marker, "", kite::kForceMarker);
    installer_.RecordAction(folder_ / "product\\x.dll", folder_ / "product\\{gone}",
                            kite::kRenamedAside);
    ClearLog();

    installer_.Abort();

    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::Abort"),
              std::vector<Lines>{{"creating: " + marker}});
    ASSERT_TRUE(kitetest::Exists(marker));
    EXPECT_EQ(ReadFileBytes(marker), "");
}

TEST_F(SettleTest, CommitDeletesAsideFilesAndTheMarkerOnlyWhenPresent) {
    const std::string aside = folder_ / "{aside}";
    kitetest::WriteFileBytes(aside, "old");
    for (bool markerPresent : {false, true}) {
        const std::string marker = folder_ / "force_apply_kite.dat";
        if (markerPresent) kitetest::WriteFileBytes(marker, "");
        kitetest::WriteFileBytes(aside, "old");
        installer_.RecordAction(marker, "", kite::kForceMarker);
        installer_.RecordAction(folder_ / "x.dll", aside, kite::kRenamedAside);
        installer_.RecordAction(folder_ / "x.dll", "", kite::kFilePlaced);
        ClearLog();

        installer_.Commit();

        Lines deleted = {"Deleting " + aside + " - Success."};
        if (markerPresent) deleted.push_back("Deleting " + marker + " - Success.");
        std::vector<Lines> expected;
        for (const std::string& line : deleted) expected.push_back({line});
        EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::DeleteFile_S"), expected);
        EXPECT_FALSE(kitetest::Exists(aside));
        EXPECT_FALSE(kitetest::Exists(marker));
        EXPECT_TRUE(installer_.journal().empty());
    }
}

// Without administrator rights nothing is touched and no result line is traced.
TEST_F(SettleTest, InstallWithoutAdministratorRightsTouchesNothing) {
    kitetest::PlatformOverride platform;
    platform.calls().IsUserAnAdmin = []() -> BOOL { return FALSE; };
    platform.calls().GetTokenInformation = [](HANDLE, TOKEN_INFORMATION_CLASS, LPVOID info, DWORD,
                                              PDWORD returned) -> BOOL {
        *static_cast<DWORD*>(info) = 3;  // a split token, not elevated
        if (returned) *returned = sizeof(DWORD);
        return TRUE;
    };
    const std::string product = folder_ / "product";
    kitetest::CreateFolders(product);
    kitetest::WriteFileBytes(product + "\\lib.dll", "old");
    const std::string manifest = "<commands><appdir>" + product +
                                 "</appdir><command><src>C:\\missing\\lib.dll</src><dst>" +
                                 product +
                                 "\\lib.dll</dst><register>0</register></command>"
                                 "</commands>";
    ClearLog();

    EXPECT_EQ(installer_.Install(manifest.c_str()), E_ACCESSDENIED);

    EXPECT_TRUE(installer_.journal().empty());
    EXPECT_EQ(kitetest::FolderState(product),
              (std::map<std::string, std::string>{{"lib.dll", "old"}}));
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::Install"),
              std::vector<Lines>{{"Admin = 0"}});
}

// Only the text "1" turns folder support on, so only then does a 32-bit server (type 5 or 6) get
// registered; the switch's message is traced whenever the element is there.
TEST_F(SettleTest, FolderSupportOnlyForTheTextOne) {
    const std::string regsvr32 = InstallRecorder("C:\\windows\\syswow64\\regsvr32.exe");
    const std::string product = folder_ / "product";
    const std::string server = Fixture("kitecom_ok.dll", "srv32.dll");
    struct Row {
        const char* element;  // nullptr: no element
        bool registered32;
    };
    const Row rows[] = {{"1", true}, {"true", false}, {"0", false}, {nullptr, false}};
    for (const Row& row : rows) {
        kitetest::RemoveTree(product);
        kitetest::CreateFolders(product);
        ::DeleteFileA((regsvr32 + ".calls").c_str());
        ClearLog();
        const std::string manifest =
            "<commands><appdir>" + product + "</appdir>" +
            (row.element ? std::string("<enableCodeForKITEFolderSupport>") + row.element +
                               "</enableCodeForKITEFolderSupport>"
                         : std::string()) +
            "<command><src>" + server + "</src><dst>" + product +
            "\\srv32.dll</dst><register>6</register></command></commands>";
        kite::CKiteInstaller installer;

        EXPECT_EQ(installer.Install(manifest.c_str()), S_OK)
            << (row.element ? row.element : "none");

        EXPECT_EQ(installer.folderSupport(), row.registered32);
        EXPECT_EQ(Calls(regsvr32).empty(), !row.registered32)
            << (row.element ? row.element : "none");
        Lines trail = {"Admin = 1"};
        if (row.element) {
            trail.push_back(
                "CKiteInstaller::Install code to support new folder structure is enabled");
        }
        trail.push_back("CKiteInstaller::Install successful");
        trail.push_back("Return = 0");
        EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::Install"),
                  std::vector<Lines>{trail})
            << (row.element ? row.element : "none");
    }
}

}  // namespace
