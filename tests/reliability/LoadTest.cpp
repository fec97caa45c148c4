// Installations and queries at the same moment from several host processes: two hosts install
// into two product folders at once, and four hosts ask the query exports in a loop while an
// installation updates the product under them. Every result must be right and every line of
// the shared log whole.
#include "KITEUpdate.h"

#include "reliability/ReliabilityFixture.h"

#include <cstdio>
#include <map>
#include <regex>
#include <set>

namespace {

using kitetest::Quote;
using State = std::map<std::string, std::string>;

// What the log's lines say: which of them are not whole, and the entering and exiting lines of
// each scope.
struct LogCheck {
    std::string broken;  // the lines that are not whole, for the report
    int lines = 0;
    std::map<std::string, int> entering;
    std::map<std::string, int> exiting;
};

// Every line ends with CR LF and is either a stamped entering or exiting line of a known scope, or
// a message line of the form that one of those scopes writes. A path in a message is made of the
// test folder and names the installation knows, so a line cut short or run into the next one
// matches no form.
LogCheck CheckLog(const std::string& log, const std::set<std::string>& scopes) {
    static const std::regex stamp(
        "[0-9]{4}-[0-9]{2}-[0-9]{2}\\.[0-9]{2}:[0-9]{2}:[0-9]{2} : (Entering|Exiting) (.+)");
    static const std::string name =
        "(Tallowmere2?|package|plugins|CriticalFixes|tww\\.exe|BASECORE\\.DLL|Options\\.DLL|"
        "readme\\.txt|notes\\.txt|srv2?\\.dll|force_apply_kite\\.dat|"
        "\\{[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\\})";
    static const std::string path = "C:\\\\kitetest\\\\[a-z]+-[0-9]+-[0-9]+(\\\\" + name + ")+";
    static const std::regex message(
        "Applicability = A7|Slipstream = 7|Return value : 1|Return value = 0"
        // A file renamed aside or not yet copied whole has no version to read.
        "|GetFileVersion\\(\\) returned [0-9]+"
        "|" +
        path +
        " : 27\\.0\\.400[89]\\.[0-9]+\\. Level: [0-9]+SlipStream: [0-9]+"
        "| Return value: 1|Admin = 1|Backup not required|File doesn't exist|HRESULT = 0"
        "|Entered into SendRequestAndGetResponse|Exited from SendRequestAndGetResponse"
        "|CKiteInstaller::SendRequestAndGetResponse Successfully downloaded the ini with "
        "GetLastError:  0"
        "|Backup request for " +
        path + "|CKiteInstaller::CopyFiles Src = " + path +
        "|CKiteInstaller::(CopyFiles|RegisterFiles) Return: 1|CKiteInstaller::Install successful"
        "|CopyFile: Src=" +
        path + ", dst=" + path +
        ", server=[0-2]"
        "|CopyFile_S return = 1|CopyFile_S: " +
        path + " => " + path + "|Deleting " + path +
        " - Success\\."
        "|Rename: " +
        path + " => " + path +
        ", Return = 1"
        "|src = " +
        path + ", dst=(" + path +
        "|2|), action=[1-5]"
        "|src = " +
        path +
        ", reg=[01], server=2"
        "|\"C:\\\\windows\\\\system32\\\\regsvr32\\.exe\" /s \"" +
        path +
        "\"|Process creation: 1|Exit code: 0"
        "|File: " +
        path + " Register: 1ServerType: 2|Return = [01]");
    LogCheck check;
    std::string::size_type start = 0;
    while (start < log.size()) {
        const std::string::size_type end = log.find("\r\n", start);
        if (end == std::string::npos) {
            check.broken += " unterminated last line: " + log.substr(start) + ";";
            break;
        }
        const std::string line = log.substr(start, end - start);
        start = end + 2;
        ++check.lines;
        std::smatch match;
        if (std::regex_match(line, match, stamp)) {
            if (scopes.count(match[2]) == 0) check.broken += " unknown scope: " + line + ";";
            ++(match[1] == "Entering" ? check.entering : check.exiting)[match[2]];
        } else if (line.find(" : Entering ") != std::string::npos ||
                   line.find(" : Exiting ") != std::string::npos ||
                   line.find('\r') != std::string::npos || line.find('\n') != std::string::npos ||
                   line.find('\0') != std::string::npos || !std::regex_match(line, message)) {
            check.broken += " not whole: " + line + ";";
        }
    }
    return check;
}

class LoadTest : public kitetest::ReliabilityFixture {
  public:
    // The package also replaces "Options.DLL", the third file that the product's level is read
    // from, so that the product has one level before and one after.
    void AddFeatureLibrary(const std::string& folder) {
        kitetest::CopyFileTo(kitetest::FixturePath("tw27-library-4008.dll"),
                             folder + "\\Options.DLL");
    }

    void ArrangeLoad() {
        ArrangeRun(false);
        kitetest::CopyFileTo(kitetest::FixturePath("tw27-library-4009.dll"),
                             package_ + "\\Options.DLL");
        commands_.push_back({"Options.DLL", "Options.DLL", "0"});
        AddFeatureLibrary(product_);
        before_ = ProductFiles();
    }

    std::string WriteManifest(const std::string& name) {
        const std::string path = folder_ / name;
        kitetest::WriteFileBytes(path, Manifest());
        return path;
    }

    HANDLE StartInstall(const std::string& manifest) {
        return kitetest::StartProcess(Quote(kitetest::ExeFolder() + "\\kiteinstall.exe") + " " +
                                      Quote(manifest));
    }

    static DWORD ExitCodeOf(HANDLE process) {
        DWORD code = 1;
        EXPECT_EQ(::WaitForSingleObject(process, 120000), WAIT_OBJECT_0);
        ::GetExitCodeProcess(process, &code);
        ::CloseHandle(process);
        return code;
    }

    // The folder as the package wants it, nothing left of the installation, both servers
    // registered.
    void ExpectCommitted(const std::string& what) {
        EXPECT_EQ(ProductFiles(), Committed()) << what << Describe(Committed(), ProductFiles());
        EXPECT_FALSE(kitetest::Exists(product_ + "\\CriticalFixes\\force_apply_kite.dat")) << what;
        EXPECT_FALSE(kitetest::Exists(product_ + "\\CriticalFixes\\kite_journal.dat")) << what;
    }

    LogCheck ExpectLogWhole(const std::set<std::string>& scopes) {
        const LogCheck check = CheckLog(ReadLog(), scopes);
        EXPECT_EQ(check.broken, "");
        EXPECT_EQ(check.entering, check.exiting);
        EXPECT_GT(check.lines, 0);
        std::printf("log: %d lines whole;", check.lines);
        for (const auto& scope : check.entering) {
            std::printf(" %s %d", scope.first.c_str(), scope.second);
        }
        std::printf("\n");
        return check;
    }
};

// The scopes that an installation which commits and the query exports open.
const std::set<std::string> kScopes = {"CKiteInstaller::Install",
                                       "CKiteInstaller::GetModuleVersion",
                                       "CKiteInstaller::GetFileVersion",
                                       "CheckIsUserAdmin",
                                       "CKiteInstaller::TakeBackup",
                                       "CKiteInstaller::SendRequestAndGetResponse",
                                       "CKiteInstaller::CheckInternetConnection",
                                       "CKiteInstaller::CopyFiles",
                                       "CKiteInstaller::BackupFile",
                                       "CopyFile_S",
                                       "CKiteInstaller::RecordAction",
                                       "CKiteInstaller::RecordComRegistration",
                                       "CKiteInstaller::RegisterFiles",
                                       "RegisterServer",
                                       "LaunchAndWait",
                                       "CKiteInstaller::Commit",
                                       "CKiteInstaller::DeleteFile_S",
                                       "GetSlipStreamFromFile",
                                       "IsKITEApplicable",
                                       "IsKITEToBeForceApplied"};

TEST_F(LoadTest, TwoHostsInstallIntoTwoFoldersAtOnce) {
    ArrangeLoad();
    const std::string first = WriteManifest("first.xml");
    const State firstBefore = before_;
    const std::string firstProduct = product_;
    product_ = folder_ / "Tallowmere2";
    ArrangeProduct();
    AddFeatureLibrary(product_);
    before_ = ProductFiles();
    const std::string second = WriteManifest("second.xml");

    HANDLE hosts[] = {StartInstall(first), StartInstall(second)};
    EXPECT_EQ(ExitCodeOf(hosts[0]), 0u);
    EXPECT_EQ(ExitCodeOf(hosts[1]), 0u);

    ExpectCommitted("second folder");
    product_ = firstProduct;
    before_ = firstBefore;
    ExpectCommitted("first folder");
    const State registry = kitetest::RegistryState(kServersKey);
    EXPECT_EQ(registry.count("srv.dll"), 1u);
    EXPECT_EQ(registry.count("srv2.dll"), 1u);
    const LogCheck log = ExpectLogWhole(kScopes);
    EXPECT_EQ(log.entering.at("CKiteInstaller::Install"), 2);
    EXPECT_EQ(log.entering.at("CKiteInstaller::Commit"), 2);
}

TEST_F(LoadTest, QueriesWhileAnInstallationRunsAnswerRight) {
    ArrangeLoad();
    const std::string manifest = WriteManifest("manifest.xml");
    const std::string settings = folder_ / "settings.ini";
    kitetest::WriteFileBytes(settings, "[KITEApplicability]\r\nSlipstreams=A7\r\n");
    const int oldLevel = GetTwSlipstream2(product_.c_str());
    const int newLevel = GetTwSlipstream2(package_.c_str());
    ASSERT_NE(oldLevel, -1);
    ASSERT_NE(newLevel, -1);
    ASSERT_NE(oldLevel, newLevel);
    ClearLog();

    const std::string tag = std::to_string(::GetCurrentProcessId());
    const std::string doneName = "kiteload-done-" + tag;
    HANDLE done = ::CreateEventA(nullptr, TRUE, FALSE, doneName.c_str());
    HANDLE ready[4];
    HANDLE hosts[4];
    int rounds = 0;
    for (int i = 0; i < 4; ++i) {
        const std::string readyName = "kiteload-ready-" + tag + "-" + std::to_string(i);
        ready[i] = ::CreateEventA(nullptr, TRUE, FALSE, readyName.c_str());
        hosts[i] = kitetest::StartProcess(
            Quote(kitetest::ExeFolder() + "\\kitestress.exe") + " query " + Quote(settings) +
            " 7 20 " + Quote(product_) + " " + std::to_string(oldLevel) + " " +
            std::to_string(newLevel) + " " + readyName + " " + doneName + " " +
            Quote(folder_ / ("report" + std::to_string(i) + ".txt")));
    }
    // Every host has asked once before the installation starts, and goes on until it ends.
    ASSERT_EQ(::WaitForMultipleObjects(4, ready, TRUE, 120000), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCodeOf(StartInstall(manifest)), 0u);
    ::SetEvent(done);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(ExitCodeOf(hosts[i]), 0u) << "host " << i;
        const std::string report =
            kitetest::ReadFileBytes(folder_ / ("report" + std::to_string(i) + ".txt"));
        EXPECT_EQ(report.find("wrong"), std::string::npos) << report;
        std::printf("query host %d: %s", i, report.c_str());
        int hostRounds = 0;
        EXPECT_EQ(std::sscanf(report.c_str(), "rounds %d", &hostRounds), 1) << report;
        rounds += hostRounds;
        ::CloseHandle(ready[i]);
    }
    ::CloseHandle(done);
    ExpectCommitted("product");
    // Not one call's lines are missing: each round asked three files for their level.
    const LogCheck log = ExpectLogWhole(kScopes);
    EXPECT_EQ(log.entering.at("IsKITEApplicable"), rounds);
    EXPECT_EQ(log.entering.at("IsKITEToBeForceApplied"), rounds);
    EXPECT_EQ(log.entering.at("GetSlipStreamFromFile"), 3 * rounds);
    EXPECT_EQ(log.entering.at("CKiteInstaller::Commit"), 1);
}

}  // namespace
