#include "installer/KiteInstaller.h"

#include "support/KiteServers.h"
#include "telemetry/TelemetryReporter.h"

#include <regex>
#include <tuple>

namespace {

using namespace kitetest;
constexpr auto npos = std::string::npos;

// Events leave through the library's sending thread: what the collector received is read after it.
const bool kFlushBeforeReading = (KiteServers::beforeReading = kite::FlushTelemetry, true);

TEST(TelemetryNetworkTest, EventsReachTheirEndpointByteForByte) {
    KiteServers servers;
    servers.ServeConfiguration(CollectorConfiguration(servers.collector));
    // The reporter with a configuration fetched afresh, as on its first use in a process.
    kite::TelemetryReporter& reporter = kite::TelemetryReporter::Instance() = {};
    reporter.LoadConfiguration();
    reporter.SetSlipStream("3");
    reporter.SetMajorVersion("27");
    reporter.buildNumber = "123";
    servers.Clear();
    reporter.ReportEvent(0, "CKiteInstaller::Install failed, proceeding for Abort ", true);
    reporter.ReportEvent(0, std::string(5000, 'x').c_str(), false);
    kite::FlushTelemetry();
    reporter.PostEvent("k=v", true, "PDS");
    reporter.PostEvent("k=v", false, "PDSX");
    const auto requests = servers.Requests();
    ASSERT_EQ(requests.size(), 4u);
    const std::string body =
        "appname=\"twdt\"&appcontext=\"led\"&scenario=\"\"&message=\"\"&messagetype=\"Error\"&"
        "token=LED-TOKEN&tid=\"ID\"&ProjectName=\"TWUpdateKITE\"&OS=\"32 Bit Windows7 SP1\"&& "
        "ErrorMessage=\"CKiteInstaller::Install failed, proceeding for Abort \"& SlipStream=\"3\"& "
        "MajorVer=\"27\"& KITEBuildNumber=\"123\"";
    const std::regex id("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}");
    EXPECT_EQ(std::regex_replace(requests[0], id, "ID"),
              "POST /led/prod HTTP/1.1\r\nHost: " + servers.collector +
                  "\r\nContent-Length: " + std::to_string(body.size() + 34) +
                  "\r\nContent-Type: application/x-www-form-urlencoded\r\nAuthorization: Splunk "
                  "led-prod\r\n\r\n" +
                  body);
    // A message too long for the body is cut to fit and marked.
    EXPECT_TRUE(
        std::regex_match(requests[1], std::regex("[\\s\\S]*Length: 1699\r\n[\\s\\S]*\"Info\"&"
                                                 "token=TRACK-TOKEN&.*& TrackingMessage="
                                                 "\"x+\\.\\.\\.\"& SlipStream=.*")));
    const std::string any = "HTTP/1.1\r\n[\\s\\S]*urlencoded\r\n";
    EXPECT_TRUE(std::regex_match(requests[2],
                                 std::regex("POST /led/perf " + any + "X-Env: perf\r\n\r\nk=v")));
    EXPECT_TRUE(std::regex_match(requests[3], std::regex("POST /track/prod " + any + "\r\nk=v")));
}

// Whatever the collector does, an installation ends within seconds with the outcome of its files;
// a healthy collector gets every event, each on a connection of its own.
TEST(TelemetryNetworkTest, NoCollectorHoldsAnInstallation) {
    KiteServers servers;
    TempFolder folder("hold");
    const std::string package = folder.path(), product = folder / "product";
    CreateFolders(product + "\\CriticalFixes");
    CopyFileTo(FixturePath("tw27-program-4008.exe"), product + "\\tww.exe");
    WriteFileBytes(package + "\\kite.ini", "[KITEApplicability]\r\nSlipstreams=\r\n");
    WriteFileBytes(package + "\\a.txt", "a");
    const auto command = [&](const std::string& file) {
        return "<command><src>" + package + "\\" + file + "</src><dst>" + product + "\\" + file +
               "</dst><register>0</register></command>";
    };
    // fail: a second, missing file undoes the installation; events: -1 unchecked, 1 as healthy.
    const std::tuple<std::string, bool, int> rows[] = {
        {"", false, 1},          {"", true, 1},
        {"keepalive", false, 1}, {"error500", true, 1},
        {"refuse", true, 0},     {"silent", false, -1},
        {"notls", true, -1},     {"unresolvable", true, 0},
        {"bigconfig", false, 0}};
    std::size_t healthy[2] = {0, 0};
    for (const auto& [mode, fail, expected] : rows) {
        std::string config = CollectorConfiguration(
            mode == "unresolvable" ? std::string(64, 'x') + ".invalid" : servers.collector);
        if (mode == "bigconfig") config += "<!--" + std::string(300000, '-') + "-->";
        servers.Clear();
        servers.ServeConfiguration(config);
        servers.SetCollectorMode(mode, 20);
        WriteFileBytes(package + "\\manifest.xml",
                       "<commands><appdir>" + product + "</appdir>" + command("a.txt") +
                           (fail ? command("missing") : "") + "</commands>");
        // Every row starts from the same product folder, so rows report the same events.
        ::DeleteFileA((product + "\\a.txt").c_str());
        WriteFileBytes(product + "\\CriticalFixes\\force_apply_kite.dat", "");
        const ULONGLONG start = ::GetTickCount64();
        const auto host =
            RunProcess(Quote(ExeFolder() + "\\kitehost.exe") + " update " + Quote(package));
        EXPECT_LT(::GetTickCount64() - start, 20000u) << mode;
        EXPECT_NE(host.output.find(fail ? " 0x80004005," : " 0x00000000,"), npos)
            << mode << host.output;
        servers.SetCollectorMode("");
        const std::size_t events = servers.Requests().size();
        if (mode.empty()) {
            healthy[fail] = events;
            EXPECT_GE(events, 3u) << "every event is gone out";
            EXPECT_EQ(servers.Connections(), events);
        }
        if (expected >= 0) {
            EXPECT_EQ(events, expected ? healthy[fail] : 0u) << mode;
        }
    }
}

// The policy is read from memory: a file at the old download path is neither written nor deleted.
TEST(TelemetryNetworkTest, RestorePolicyDecidesOnlyFromADownloadedValue) {
    KiteServers servers;
    servers.ServeConfiguration(CollectorConfiguration(servers.collector));
    (kite::TelemetryReporter::Instance() = {}).LoadConfiguration();
    const std::string planted = std::string(std::getenv("APPDATA")) + "\\restorekite.ini",
                      old = "[takebackup]\r\n27=1";
    WriteFileBytes(planted, old);
    const std::string download = "CKiteInstaller::SendRequestAndGetResponse ";
    const std::string fetched = download + "Successfully downloaded the ini with GetLastError:  0";
    const std::string refused = download + "URL is invalid with GetLastError :  12029";
    // policy "": the server refuses; last: the last event's message.
    const std::tuple<unsigned, unsigned, std::string, int, std::string> rows[] = {
        {27, 4008, "[TakeBackup]\r\n 27 = 4008 \r\n", 0, fetched},
        {27, 4008, "[takebackup]\r\n27=4100\r\n", 1, fetched},
        {25, 4000, "[takebackup]\r\n26=1\r\n[other]\r\n25=1\r\n", 1,
         "CKiteInstaller::TakeBackup Failed to read from restorekite.ini files with "
         "GetLastError :  2"},
        {27, 4009, "", 0, refused},
    };
    for (const auto& [major, release, policy, backups, last] : rows) {
        servers.restoreServer_.SetString(policy.empty() ? "127.0.0.1:1" : servers.restore);
        servers.Clear();
        WriteFileBytes(kShare + "restore\\restorekite.ini", policy);
        EXPECT_EQ(kite::CKiteInstaller().TakeBackup(major, release), backups) << policy;
        const auto events = servers.Requests();
        ASSERT_FALSE(events.empty());
        EXPECT_NE(events.front().find(policy.empty() ? refused : fetched), npos);
        EXPECT_NE(events.back().find("& ErrorMessage=\"" + last + "\"&"), npos) << policy;
    }
    EXPECT_EQ(ReadFileBytes(planted), old);
    ::DeleteFileA(planted.c_str());
}

}  // namespace
