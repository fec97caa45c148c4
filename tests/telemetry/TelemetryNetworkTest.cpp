#include "installer/KiteInstaller.h"
#include "telemetry/TelemetryReporter.h"

#include "support/Telemetry.h"

#include <shlobj.h>

#include <regex>

namespace {

using kitetest::Quote;

// A POST as WinINet puts it on the wire: its own Host and Content-Length, then the module's.
std::string Post(const std::string& host, const std::string& path, const std::string& header,
                 const std::string& body) {
    return "POST " + path + " HTTP/1.1\r\nHost: " + host +
           "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nContent-Type: application/x-www-form-urlencoded\r\n" +
           (header.empty() ? "" : header + "\r\n") + "\r\n" + body;
}

class TelemetryNetworkTest : public ::testing::Test {
  public:
    kitetest::KiteServers servers_;
};

TEST_F(TelemetryNetworkTest, EventsReachTheCollectorByteForByte) {
    servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
    kite::TelemetryReporter& reporter = kitetest::ReloadTelemetry();
    reporter.SetSlipStream("3");
    reporter.SetMajorVersion("27");
    reporter.buildNumber = "123";
    servers_.Clear();
    const std::string longMessage(5000, 'x');
    reporter.ReportEvent(0, "CKiteInstaller::Install failed, proceeding for Abort ", true);
    reporter.ReportEvent(0, "a&b=\"c\"", false);
    reporter.ReportEvent(0, longMessage.c_str(), true);
    kite::FlushTelemetry();
    reporter.PostEvent("k=v", true, "PDS");
    reporter.PostEvent("k=v", false, "PDSX");
    const auto requests = servers_.Requests("collector");
    ASSERT_EQ(requests.size(), 5u);
    const std::regex tid("tid=\"[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\"");
    const std::string id = "tid=\"XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX\"";
    const std::string head = "appname=\"twdt\"&appcontext=";
    const std::string facts = "\"& SlipStream=\"3\"& MajorVer=\"27\"& KITEBuildNumber=\"123\"";
    EXPECT_EQ(
        std::regex_replace(requests[0].raw, tid, id),
        Post(servers_.collector, "/led/prod", "Authorization: Splunk led-prod",
             head + "\"led\"&scenario=\"\"&message=\"\"&messagetype=\"Error\"&token=LED-TOKEN&" +
                 id +
                 "&ProjectName=\"TWUpdateKITE\"&OS=\"32 Bit Windows7 SP1\"&& ErrorMessage=\""
                 "CKiteInstaller::Install failed, proceeding for Abort " +
                 facts));
    EXPECT_EQ(std::regex_replace(requests[1].raw, tid, id),
              Post(servers_.collector, "/track/prod", "",
                   head +
                       "\"InstallTracker\"&scenario=\"\"&message=\"\"&messagetype=\"Info\"&token="
                       "TRACK-TOKEN&" +
                       id +
                       "&ProjectName=\"TWUpdateKITE\"&OS=\"32 Bit Windows7 SP1\""
                       "&& TrackingMessage=\"a&b=\"c\"" +
                       facts));
    // A message too long for the body is cut to fit and marked, never the end of the host.
    EXPECT_EQ(requests[2].body.size(), 1699u);
    EXPECT_NE(requests[2].body.find("xxx...\"& SlipStream"), std::string::npos);
    EXPECT_EQ(requests[3].raw, Post(servers_.collector, "/led/perf", "X-Env: perf", "k=v"));
    EXPECT_EQ(requests[4].raw, Post(servers_.collector, "/track/prod", "", "k=v"));
}

// Whatever the collector does, an installation through the DLL ends within seconds with the
// outcome of its files; a healthy collector gets every event.
TEST_F(TelemetryNetworkTest, NoCollectorHoldsAnInstallation) {
    kitetest::TempFolder folder("hold");
    const std::string product = folder / "product", package = folder / "package";
    kitetest::CreateFolders(product);
    kitetest::CreateFolders(package);
    kitetest::CopyFileTo(kitetest::FixturePath("tw27-program-4008.exe"), product + "\\tww.exe");
    kitetest::WriteFileBytes(package + "\\kite.ini", "[KITEApplicability]\r\nSlipstreams=\r\n");
    kitetest::WriteFileBytes(package + "\\a.txt", "a");
    struct Row {
        const char* mode;
        bool fail;   // a third file is missing: the installation is undone
        int events;  // -1: not checked; 1: as many as the healthy collector got
    };
    const Row rows[] = {{"", false, 1},         {"", true, 1},         {"keepalive", false, 1},
                        {"keepalive", true, 1}, {"error500", true, 1}, {"refuse", true, 0},
                        {"silent", false, -1},  {"notls", true, -1},   {"unresolvable", true, 0},
                        {"bigconfig", false, 0}};
    std::size_t healthy[2] = {0, 0};
    for (const Row& row : rows) {
        const std::string what = std::string(row.mode) + (row.fail ? " failing" : " 1 file");
        std::string config = kitetest::CollectorConfiguration(
            row.mode == std::string("unresolvable") ? std::string(64, 'x') + ".invalid"
                                                    : servers_.collector);
        if (row.mode == std::string("bigconfig"))
            config += "<!--" + std::string(300000, '-') + "-->";
        servers_.Clear();
        servers_.ServeConfiguration(config);
        servers_.SetCollectorMode(row.mode, 20);
        std::string manifest = "<commands><appdir>" + product + "</appdir>";
        for (const char* file : {"a.txt", "b.txt", "c.txt"}) {
            if (file[0] != 'a' && !row.fail) break;
            manifest += std::string("<command><src>") + package + "\\" +
                        (file[0] == 'c' ? "missing" : "a.txt") + "</src><dst>" + product + "\\" +
                        file + "</dst><register>0</register></command>";
        }
        kitetest::WriteFileBytes(package + "\\manifest.xml", manifest + "</commands>");
        kitetest::CreateFolders(product + "\\CriticalFixes");  // forced: no release to match
        kitetest::WriteFileBytes(product + "\\CriticalFixes\\force_apply_kite.dat", "");
        const ULONGLONG start = ::GetTickCount64();
        const auto host = kitetest::RunProcess(Quote(kitetest::ExeFolder() + "\\kitehost.exe") +
                                               " update " + Quote(package));
        EXPECT_LT(::GetTickCount64() - start, 20000u) << what;
        EXPECT_NE(host.output.find(row.fail ? " 0x80004005," : " 0x00000000,"), std::string::npos)
            << what << host.output;
        servers_.SetCollectorMode("");
        const std::size_t events = servers_.Requests("collector").size();
        if (*row.mode == '\0') healthy[row.fail] = events;
        if (*row.mode == '\0') EXPECT_GE(events, 3u) << what;  // every event gone out
        if (row.events >= 0) EXPECT_EQ(events, row.events ? healthy[row.fail] : 0u) << what;
    }
}

// The policy is read from memory: a file (or a link) at the old download path is neither
// deleted, written nor created.
TEST_F(TelemetryNetworkTest, RestorePolicyDecidesOnlyFromADownloadedValue) {
    servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
    kitetest::ReloadTelemetry();
    char roaming[MAX_PATH] = {};
    ::SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, 0, roaming);
    const std::string planted = std::string(roaming) + "\\restorekite.ini";
    const std::string download = "CKiteInstaller::SendRequestAndGetResponse ";
    struct Row {
        unsigned major, release;
        const char* policy;  // null: 404; "": the server refuses
        int backups;
        std::string event;  // the download's or the reading's event, "" none
    };
    const Row rows[] = {
        {27, 4008, "[TakeBackup]\r\n 27 = 4008 \r\n", 0, ""},
        {27, 4008, "[takebackup]\r\n27=4100\r\n", 1, ""},
        {25, 4000, "[takebackup]\r\n26=1\r\n[other]\r\n25=1\r\n", 1,
         "CKiteInstaller::TakeBackup Failed to read from restorekite.ini files with GetLastError : "
         " 2"},
        {27, 4009, "", 0, download + "URL is invalid with GetLastError :  12029"},
        {27, 4008, "", 1, download + "URL is invalid with GetLastError :  12029"},
    };
    for (const Row& row : rows) {
        const bool planting = &row == &rows[0];
        if (planting) kitetest::WriteFileBytes(planted, "[takebackup]\r\n27=1\r\n");
        servers_.restoreServer_.SetString(*row.policy ? servers_.restore : "127.0.0.1:1");
        servers_.Clear();
        servers_.ServeRestoreFile(row.policy);
        kite::CKiteInstaller installer;
        EXPECT_EQ(installer.TakeBackup(row.major, row.release), row.backups) << row.policy;
        const auto events = servers_.EventMessages();
        ASSERT_FALSE(events.empty());
        if (*row.policy) {
            EXPECT_EQ(events[0], "error: " + download +
                                     "Successfully downloaded the ini with GetLastError:  0");
        }
        EXPECT_EQ(events.back(), row.event.empty() ? events[0] : "error: " + row.event)
            << row.policy;
        EXPECT_EQ(kitetest::Exists(planted) ? kitetest::ReadFileBytes(planted) : "",
                  planting ? "[takebackup]\r\n27=1\r\n" : "");
        if (planting) ::DeleteFileA(planted.c_str());
    }
}

}  // namespace
