#include "installer/KiteInstaller.h"

#include "support/KiteTest.h"
#include "support/LogLines.h"
#include "support/HeldFile.h"
#include "support/PlatformOverride.h"
#include "support/Telemetry.h"

#include <shlobj.h>

#include <regex>
#include <vector>

// Found by argument-dependent lookup, so they live with the record type.
namespace kite {

bool operator==(const ActionRecord& a, const ActionRecord& b) {
    return a.source == b.source && a.destination == b.destination && a.action == b.action;
}

void PrintTo(const ActionRecord& r, std::ostream* out) {
    *out << "{" << r.action << ", " << r.source << ", " << r.destination << "}";
}

}  // namespace kite

namespace {

using kite::ActionRecord;
using kitetest::Lines;
using kitetest::LinesOfScope;
using kitetest::ReadFileBytes;
using kitetest::WriteFileBytes;

struct Command {
    std::string src;
    std::string dst;
    int serverType;
};

std::string ManifestText(const std::string& appdir, const std::vector<Command>& commands) {
    std::string text = "<commands><appdir>" + appdir + "</appdir>";
    for (const Command& c : commands) {
        text += "<command><src>" + c.src + "</src><dst>" + c.dst + "</dst><register>" +
                std::to_string(c.serverType) + "</register></command>";
    }
    return text + "</commands>";
}

class CopyFilesTest : public kitetest::LogTest {
  public:
    CopyFilesTest() { installer_.SetProductFolder(product_.path()); }

    int Copy(const std::vector<Command>& commands) {
        const kite::ptree manifest =
            kite::ParseManifest(ManifestText(product_.path(), commands).c_str());
        return installer_.CopyFiles(manifest.get_child("commands"));
    }

    std::vector<std::string> Events() const { return telemetry_.servers.EventMessages(); }

    kitetest::TelemetryToCollector telemetry_;
    kitetest::TempFolder product_{"product"};
    kitetest::TempFolder package_{"package"};
    kite::CKiteInstaller installer_;
};

// The journal holds, per file and in order, what an undo needs: a re-registration for a
// replaced server, the rename aside, the placement of the new file.
TEST_F(CopyFilesTest, MixedPackageIsJournaledRecordByRecordAndPlacedOnDisk) {
    WriteFileBytes(package_ / "new.txt", "new text");
    WriteFileBytes(package_ / "old.dll", "new library");
    WriteFileBytes(package_ / "server.dll", "new server");
    WriteFileBytes(package_ / "deep.dat", "deep data");
    WriteFileBytes(product_ / "old.dll", "old library");
    WriteFileBytes(product_ / "server.dll", "old server");
    const std::string deep = product_ / "a\\b\\c\\deep.dat";

    ASSERT_EQ(Copy({{package_ / "new.txt", product_ / "new.txt", 0},
                    {package_ / "old.dll", product_ / "old.dll", 0},
                    {package_ / "server.dll", product_ / "server.dll", 2},
                    {package_ / "deep.dat", deep, 0}}),
              1);

    const std::deque<ActionRecord>& journal = installer_.journal();
    ASSERT_EQ(journal.size(), 7u);
    const std::string oldAside = journal[1].destination;
    const std::string serverAside = journal[4].destination;
    const std::vector<ActionRecord> expected = {
        {product_ / "new.txt", "", 3},
        {product_ / "old.dll", oldAside, 1},
        {product_ / "old.dll", "", 3},
        {product_ / "server.dll", "2", 4},
        {product_ / "server.dll", serverAside, 1},
        {product_ / "server.dll", "", 3},
        {deep, "", 3},
    };
    EXPECT_EQ(std::vector<ActionRecord>(journal.begin(), journal.end()), expected);

    const std::regex guidName(
        R"(\{[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\})");
    for (const std::string& aside : {oldAside, serverAside}) {
        ASSERT_EQ(aside.substr(0, product_.path().size() + 1), product_.path() + "\\");
        EXPECT_TRUE(std::regex_match(aside.substr(product_.path().size() + 1), guidName)) << aside;
    }
    EXPECT_NE(oldAside, serverAside);
    EXPECT_EQ(ReadFileBytes(oldAside), "old library");
    EXPECT_EQ(ReadFileBytes(serverAside), "old server");
    EXPECT_EQ(ReadFileBytes(product_ / "old.dll"), "new library");
    EXPECT_EQ(ReadFileBytes(product_ / "server.dll"), "new server");
    EXPECT_EQ(ReadFileBytes(product_ / "new.txt"), "new text");
    EXPECT_EQ(ReadFileBytes(deep), "deep data");
    EXPECT_EQ(ReadFileBytes(product_ / "CriticalFixes\\old.dll"), "old library");
    EXPECT_EQ(ReadFileBytes(product_ / "CriticalFixes\\server.dll"), "old server");

    const std::vector<Lines> copyFiles = LinesOfScope(ReadMaskedLog(), "CKiteInstaller::CopyFiles");
    ASSERT_EQ(copyFiles.size(), 1u);
    const Lines expectedLines = {
        "CKiteInstaller::CopyFiles Src = " + product_.path(),
        "CopyFile: Src=" + package_ / "new.txt" + ", dst=" + product_ / "new.txt" + ", server=0",
        "CopyFile: Src=" + package_ / "old.dll" + ", dst=" + product_ / "old.dll" + ", server=0",
        "Rename: " + product_ / "old.dll" + " => " + oldAside + ", Return = 1",
        "CopyFile: Src=" + package_ / "server.dll" + ", dst=" + product_ / "server.dll" +
            ", server=2",
        "Rename: " + product_ / "server.dll" + " => " + serverAside + ", Return = 1",
        "CopyFile: Src=" + package_ / "deep.dat" + ", dst=" + deep + ", server=0",
        "CKiteInstaller::CopyFiles Return: 1",
    };
    EXPECT_EQ(copyFiles[0], expectedLines);
    const std::vector<Lines> records =
        LinesOfScope(ReadMaskedLog(), "CKiteInstaller::RecordAction");
    ASSERT_EQ(records.size(), 7u);
    EXPECT_EQ(records[3], Lines{"src = " + product_ / "server.dll" + ", dst=2, action=4"});
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::RecordComRegistration"),
              std::vector<Lines>{{"src = " + product_ / "server.dll" + ", reg=1, server=2"}});
}

// A missing source costs four copy calls and three waits of a second; a source that turns up
// during a wait is copied by the next attempt.
TEST_F(CopyFilesTest, CopyRetriesWaitASecondBetweenAttempts) {
    struct Row {
        int appearsDuringWait;  // 0: never
        int result;
        int copyCalls;
        Lines retryLines;
        std::vector<std::string> events;  // after the destination's "File does not exist"
    };
    const std::string src = package_ / "late.dll";
    const std::string dst = product_ / "late.dll";
    const std::string attempt = "CopyFile_s for file " + src + " to destination " + dst;
    const Row rows[] = {
        {0,
         0,
         4,
         {attempt + "failed in attempt  1", attempt + "failed in attempt  2",
          attempt + "failed in attempt  3",
          "KITE: CKiteInstaller::CopyFiles: Failed to take back up of file " + dst},
         {"error: KITE: CopyFile_S failed at CUtils::FileExists: late.dll",
          "error: KITE: CopyFile_S failed at CUtils::FileExists: late.dll",
          "error: KITE: CopyFile_S failed at CUtils::FileExists: late.dll",
          "error: KITE: CopyFile_S failed at CUtils::FileExists: late.dll",
          "error: KITE: CopyFile_S failed for all the 3 attempts.",
          "error: KITE: CKiteInstaller::CopyFiles: Failed to take back up of file " + dst,
          "error: KITE: CKiteInstaller::CopyFiles copied these files Failure",
          "error: CKiteInstaller::CopyFiles Return: 0"}},
        {2,
         1,
         3,
         {attempt + "failed in attempt  1", attempt + "passed in attempt  2"},
         {"error: KITE: CopyFile_S failed at CUtils::FileExists: late.dll",
          "error: KITE: CopyFile_S failed at CUtils::FileExists: late.dll",
          "info: KITE: CopyFile_S passed in attempt number 2",
          "info: KITE: CKiteInstaller::CopyFiles copied these files Success",
          "info: CKiteInstaller::CopyFiles Return: 1"}},
    };
    for (const Row& row : rows) {
        kitetest::RemoveTree(product_.path());
        kitetest::CreateFolders(product_.path());
        ::DeleteFileA(src.c_str());
        ClearLog();
        telemetry_.servers.Clear();
        kite::CKiteInstaller installer;
        installer.SetProductFolder(product_.path());

        static std::vector<DWORD> waits;
        static int appearsDuringWait;
        static const std::string* source;
        waits.clear();
        appearsDuringWait = row.appearsDuringWait;
        source = &src;
        kitetest::PlatformOverride platform;
        platform.calls().Sleep = [](DWORD ms) {
            waits.push_back(ms);
            if (static_cast<int>(waits.size()) == appearsDuringWait)
                WriteFileBytes(*source, "late");
        };
        const kite::ptree manifest =
            kite::ParseManifest(ManifestText(product_.path(), {{src, dst, 0}}).c_str());
        EXPECT_EQ(installer.CopyFiles(manifest.get_child("commands")), row.result);

        EXPECT_EQ(waits, std::vector<DWORD>(row.copyCalls - 1, 1000u));
        const std::string log = ReadMaskedLog();
        EXPECT_EQ(LinesOfScope(log, "CopyFile_S").size(), static_cast<std::size_t>(row.copyCalls));
        Lines expected = {"CKiteInstaller::CopyFiles Src = " + product_.path(),
                          "CopyFile: Src=" + src + ", dst=" + dst + ", server=0"};
        expected.insert(expected.end(), row.retryLines.begin(), row.retryLines.end());
        expected.push_back("CKiteInstaller::CopyFiles Return: " + std::to_string(row.result));
        EXPECT_EQ(LinesOfScope(log, "CKiteInstaller::CopyFiles"), std::vector<Lines>{expected});
        EXPECT_EQ(LinesOfScope(log, "CopyFile_S")[0],
                  (Lines{"CopyFile_S: " + src + " => " + dst, "Error: " + src + " doesn't exist"}));
        EXPECT_EQ(installer.journal().size(), row.result == 1 ? 1u : 0u);
        std::vector<std::string> events = {
            "info: KITE: CKiteInstaller::CopyFiles:FileExists File does not exist " + dst};
        events.insert(events.end(), row.events.begin(), row.events.end());
        EXPECT_EQ(Events(), events);
    }
}

TEST_F(CopyFilesTest, BackupCopiesOfProgramFilesAndBuildInfoOnly) {
    struct Row {
        std::string name;
        int flag;
        bool exists;
        bool backedUp;
        Lines lines;  // after "Backup request for <path>", when the flag is set
    };
    const Row rows[] = {
        {"lib.dll", 0, true, false, {}},
        {"readme.txt", 1, true, false, {"Backup not required"}},
        {"BuildInfo.INI", 1, true, true, {"Return = 1"}},
        {"Lib.Dll", 1, true, true, {"Return = 1"}},
        {"tool.EXE", 1, true, true, {"Return = 1"}},
        {"ctl.ocx", 1, true, true, {"Return = 1"}},
        {"gone.dll", 1, false, false, {"File doesn't exist"}},
    };
    for (const Row& row : rows) {
        const std::string path = product_ / row.name;
        if (row.exists) WriteFileBytes(path, "installed " + row.name);
        ClearLog();
        EXPECT_EQ(installer_.BackupFile(path, row.flag), 1) << row.name;
        EXPECT_EQ(kitetest::Exists(product_ / ("CriticalFixes\\" + row.name)), row.backedUp)
            << row.name;
        Lines expected;
        if (row.flag == 0) {
            expected = {"Exiting from BackupFile method as the takeBackup flag is = 0"};
        } else {
            expected = {"Backup request for " + path};
            expected.insert(expected.end(), row.lines.begin(), row.lines.end());
        }
        EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CKiteInstaller::BackupFile"),
                  std::vector<Lines>{expected})
            << row.name;
    }

    // A later installation keeps the first backup copy.
    WriteFileBytes(product_ / "Lib.Dll", "second release");
    EXPECT_EQ(installer_.BackupFile(product_ / "Lib.Dll", 1), 1);
    EXPECT_EQ(ReadFileBytes(product_ / "CriticalFixes\\Lib.Dll"), "installed Lib.Dll");
}

TEST_F(CopyFilesTest, ManifestsThatBreakThrowAndTouchNothing) {
    struct Row {
        const char* what;
        std::string text;
    };
    const std::string deep = [] {
        std::string text;
        for (int i = 0; i < 100000; ++i) text += "<d>";
        return "<commands>" + text;
    }();
    const Row rows[] = {
        {"not XML", "commands: all of them"},
        {"empty", ""},
        {"unclosed", "<commands><command>"},
        {"nested 100000 levels", deep},
        {"no register", "<commands><command><src>C:\\a</src><dst>C:\\b</dst></command></commands>"},
        {"register not a number",
         "<commands><command><src>C:\\a</src><dst>C:\\b</dst><register>two</register></command>"
         "</commands>"},
        {"attributes",
         "<commands><command src=\"C:\\a\" dst=\"C:\\b\" register=\"0\"/></commands>"},
    };
    for (const Row& row : rows) {
        EXPECT_ANY_THROW(
            installer_.CopyFiles(kite::ParseManifest(row.text.c_str()).get_child("commands")))
            << row.what;
        EXPECT_TRUE(installer_.journal().empty()) << row.what;
    }
}

TEST_F(CopyFilesTest, ManifestWithoutCommandsCopiesNothingAndSucceeds) {
    const std::string big(4 << 20, 'x');
    const kite::ptree manifest = kite::ParseManifest(
        ("<commands><appdir>" + product_.path() + "</appdir><note>" + big + "</note></commands>")
            .c_str());
    EXPECT_EQ(installer_.CopyFiles(manifest.get_child("commands")), 1);
    EXPECT_TRUE(installer_.journal().empty());
    EXPECT_EQ(Events(), (std::vector<std::string>{
                            "info: KITE: CKiteInstaller::CopyFiles copied these files Success",
                            "info: CKiteInstaller::CopyFiles Return: 1"}));
}

// The restore policy can only switch backups off, for releases from its value on; without a
// verdict from it the built-in table decides. A 404 counts as no verdict (Wine stores the error
// page as the file, which holds no such key).
TEST_F(CopyFilesTest, BackupPolicyFromTheRestoreFileAndTheBuiltInTable) {
    struct Row {
        unsigned int major;
        unsigned int release;
        const char* policy;  // nullptr: the server answers 404
        int backups;
    };
    const Row rows[] = {
        {25, 9999, nullptr, 1},
        {26, 4013, nullptr, 1},
        {26, 4014, nullptr, 0},
        {27, 4008, nullptr, 1},
        {27, 4009, nullptr, 0},
        {28, 4005, nullptr, 1},
        {28, 4006, nullptr, 0},
        {29, 1, nullptr, 0},
        {27, 4009, "[takebackup]\r\n27=4100\r\n", 0},
        {27, 4008, "[takebackup]\r\n27=4100\r\n", 1},
        {25, 4000, "[takebackup]\r\n25=4000\r\n", 0},
        {25, 4000, "[takebackup]\r\n25=3999\r\n", 0},
        {25, 4000, "[takebackup]\r\n25=4001\r\n", 1},
        {25, 4000, "[takebackup]\r\n26=1\r\n", 1},
    };
    char roaming[MAX_PATH] = {};
    ::SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, 0, roaming);
    const std::string policyFile = std::string(roaming) + "\\restorekite.ini";
    for (const Row& row : rows) {
        const std::string what =
            std::to_string(row.major) + "." + std::to_string(row.release) +
            (row.policy ? std::string(" with ") + row.policy : " without policy");
        telemetry_.servers.Clear();
        telemetry_.servers.ServeConfiguration(
            kitetest::CollectorConfiguration(telemetry_.servers.collector));
        if (row.policy) telemetry_.servers.ServeRestoreFile(row.policy);
        ClearLog();

        EXPECT_EQ(installer_.TakeBackup(row.major, row.release), row.backups) << what;

        EXPECT_EQ(telemetry_.servers.Requests("restore").size(), 1u) << what;
        // The policy is read from memory; the roaming folder gets no file.
        EXPECT_FALSE(kitetest::Exists(policyFile)) << what;
        const std::vector<std::string> events = Events();
        ASSERT_FALSE(events.empty()) << what;
        EXPECT_EQ(
            events[0],
            "error: CKiteInstaller::SendRequestAndGetResponse Successfully downloaded the ini "
            "with GetLastError:  0")
            << what;
        const bool keyRead =
            row.policy &&
            std::string(row.policy).find(std::to_string(row.major) + "=") != std::string::npos;
        const std::vector<Lines> lines =
            LinesOfScope(ReadMaskedLog(), "CKiteInstaller::TakeBackup");
        ASSERT_EQ(lines.size(), 1u);
        if (keyRead) {
            EXPECT_TRUE(lines[0].empty()) << what;
        } else {
            ASSERT_EQ(lines[0].size(), 1u) << what;
            const std::string failed =
                "CKiteInstaller::TakeBackup Failed to read from restorekite.ini files with "
                "GetLastError :  ";
            EXPECT_EQ(lines[0][0].substr(0, failed.size()), failed) << what;
            EXPECT_NE(lines[0][0].find_first_of("0123456789", failed.size()), std::string::npos)
                << what;
            EXPECT_EQ(events.back(), "error: " + lines[0][0]) << what;
        }
    }
}

// Another program holds the installed file open without sharing. A program file cannot even be
// read for its backup copy; a data file cannot be renamed aside. Either way the command fails
// before any copy and leaves no record. A running program's image, which Windows lets rename but
// not overwrite, is renamed aside and replaced under Wine as well.
TEST_F(CopyFilesTest, FilesHeldByOtherProgramsAsWineTreatsThem) {
    struct Row {
        const char* name;
        std::vector<std::string> why;  // the events before the command's failure
    };
    const std::string dat = product_ / "held.dat";
    const Row rows[] = {
        {"held.dll",
         {"error: KITE: CopyFile failed for held.dll with GetLastError: 32",
          "error: KITE: Backup failed for held.dll"}},
        {"held.dat",
         {"error: KITE: CKiteInstaller:CopyFiles MoveFile failed for file " + dat + " for szBkp " +
              product_ / "{GUID}" + " with GetLastError: 32",
          "error: KITE: CKiteInstaller::CopyFiles: Something went wrong before invoking  "
          "CopyFile_S for file " +
              dat}},
    };
    const std::regex guid(R"(\{[0-9A-F-]{36}\})");
    for (const Row& row : rows) {
        telemetry_.servers.Clear();
        telemetry_.servers.ServeConfiguration(
            kitetest::CollectorConfiguration(telemetry_.servers.collector));
        WriteFileBytes(package_ / row.name, "new");
        WriteFileBytes(product_ / row.name, "old");
        {
            kitetest::HeldFile held(product_ / row.name);
            EXPECT_EQ(Copy({{package_ / row.name, product_ / row.name, 0}}), 0) << row.name;
        }
        EXPECT_TRUE(installer_.journal().empty()) << row.name;
        EXPECT_EQ(ReadFileBytes(product_ / row.name), "old") << row.name;
        std::vector<std::string> expected = row.why;
        expected.push_back(
            "error: KITE: CKiteInstaller::CopyFiles: Failed to take back up of file " +
            product_ / row.name);
        expected.push_back("error: KITE: CKiteInstaller::CopyFiles copied these files Failure");
        expected.push_back("error: CKiteInstaller::CopyFiles Return: 0");
        std::vector<std::string> events = Events();
        for (std::string& event : events) event = std::regex_replace(event, guid, "{GUID}");
        EXPECT_EQ(events, expected) << row.name;
    }

    kitetest::CopyFileTo(kitetest::HeldProgram::ProgramPath(), product_ / "tww.exe");
    WriteFileBytes(package_ / "tww.exe", "new program");
    kitetest::HeldProgram running;
    running.Start(product_ / "tww.exe");
    kite::CKiteInstaller installer;
    installer.SetProductFolder(product_.path());
    const kite::ptree manifest = kite::ParseManifest(
        ManifestText(product_.path(), {{package_ / "tww.exe", product_ / "tww.exe", 0}}).c_str());
    EXPECT_EQ(installer.CopyFiles(manifest.get_child("commands")), 1);
    ASSERT_EQ(installer.journal().size(), 2u);
    EXPECT_EQ(installer.journal()[0].action, 1);
    EXPECT_EQ(installer.journal()[1].action, 3);
    EXPECT_EQ(ReadFileBytes(product_ / "tww.exe"), "new program");
}

// However many files a package replaces, the list of copied files fits one event.
TEST_F(CopyFilesTest, CopiedFilesListOfALargePackageFitsOneEvent) {
    std::vector<Command> commands;
    for (int i = 0; i < 150; ++i) {
        const std::string name = "file-" + std::to_string(1000 + i) + ".dat";
        WriteFileBytes(package_ / name, "new");
        WriteFileBytes(product_ / name, "old");
        commands.push_back({package_ / name, product_ / name, 0});
    }
    EXPECT_EQ(Copy(commands), 1);
    EXPECT_EQ(installer_.journal().size(), 300u);

    const std::vector<std::string> events = Events();
    ASSERT_EQ(events.size(), 2u);
    const std::string head =
        "info: KITE: CKiteInstaller::CopyFiles copied these files\\file-1000.dat";
    EXPECT_EQ(events[0].substr(0, head.size()), head);
    EXPECT_EQ(events[0].substr(events[0].size() - 12), " ... Success");
    EXPECT_LE(events[0].size(), std::string("info: ").size() + 1000 + 12);
    EXPECT_EQ(events[1], "info: CKiteInstaller::CopyFiles Return: 1");
}

}  // namespace
