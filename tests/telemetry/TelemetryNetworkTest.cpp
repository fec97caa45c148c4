#include "installer/KiteInstaller.h"

#include "support/KiteServers.h"
#include "telemetry/TelemetryReporter.h"

#include <shlobj.h>

#include <regex>
#include <tuple>

namespace {

using kitetest::Quote;
constexpr auto npos = std::string::npos;

// Events leave through the library's sending thread: what the collector received is read after it.
const bool kFlushBeforeReading =
    (kitetest::KiteServers::beforeReading = kite::FlushTelemetry, true);

// The reporter with a configuration fetched afresh, as on its first use in a process.
kite::TelemetryReporter& ReloadTelemetry() {
    kite::TelemetryReporter::Instance() = kite::TelemetryReporter();
    kite::TelemetryReporter::Instance().LoadConfiguration();
    return kite::TelemetryReporter::Instance();
}

class TelemetryNetworkTest : public ::testing::Test {
  public:
    kitetest::KiteServers servers_;
};

TEST_F(TelemetryNetworkTest, EventsReachTheirEndpointByteForByte) {
    servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
    kite::TelemetryReporter& reporter = ReloadTelemetry();
    reporter.SetSlipStream("3");
    reporter.SetMajorVersion("27");
    reporter.buildNumber = "123";
    servers_.Clear();
    reporter.ReportEvent(0, "CKiteInstaller::Install failed, proceeding for Abort ", true);
    reporter.ReportEvent(0, std::string(5000, 'x').c_str(), false);
    kite::FlushTelemetry();
    reporter.PostEvent("k=v", true, "PDS");
    reporter.PostEvent("k=v", false, "PDSX");
    const auto requests = servers_.Requests("collector");
    ASSERT_EQ(requests.size(), 4u);
    const std::string body =
        "appname=\"twdt\"&appcontext=\"led\"&scenario=\"\"&message=\"\"&messagetype=\"Error\"&"
        "token=LED-TOKEN&tid=\"ID\"&ProjectName=\"TWUpdateKITE\"&OS=\"32 Bit Windows7 SP1\"&& "
        "ErrorMessage=\"CKiteInstaller::Install failed, proceeding for Abort \"& SlipStream=\"3\"& "
        "MajorVer=\"27\"& KITEBuildNumber=\"123\"";
    const std::regex id("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}");
    EXPECT_EQ(std::regex_replace(requests[0].raw, id, "ID"),
              "POST /led/prod HTTP/1.1\r\nHost: " + servers_.collector +
                  "\r\nContent-Length: " + std::to_string(body.size() + 34) +
                  "\r\nContent-Type: application/x-www-form-urlencoded\r\nAuthorization: Splunk "
                  "led-prod\r\n\r\n" +
                  body);
    // A message too long for the body is cut to fit and marked.
    EXPECT_EQ(requests[1].body.size(), 1699u);
    EXPECT_TRUE(std::regex_match(requests[1].body,
                                 std::regex(".*\"Info\"&token=TRACK-TOKEN&.*& "
                                            "TrackingMessage=\"x+\\.\\.\\.\"& SlipStream=.*")));
    const std::string any = "HTTP/1.1\r\n[\\s\\S]*urlencoded\r\n";
    EXPECT_TRUE(std::regex_match(requests[2].raw,
                                 std::regex("POST /led/perf " + any + "X-Env: perf\r\n\r\nk=v")));
    EXPECT_TRUE(
        std::regex_match(requests[3].raw, std::regex("POST /track/prod " + any + "\r\nk=v")));
}

// Whatever the collector does, an installation ends within seconds with the outcome of its files;
// a healthy collector gets every event, each on a connection of its own.
TEST_F(TelemetryNetworkTest, NoCollectorHoldsAnInstallation) {
    kitetest::TempFolder folder("hold");
    const std::string product = folder / "product", package = folder / "package";
    kitetest::CreateFolders(product + "\\CriticalFixes");
    kitetest::CreateFolders(package);
    kitetest::CopyFileTo(kitetest::FixturePath("tw27-program-4008.exe"), product + "\\tww.exe");
    kitetest::WriteFileBytes(package + "\\kite.ini", "[KITEApplicability]\r\nSlipstreams=\r\n");
    kitetest::WriteFileBytes(package + "\\a.txt", "a");
    // fail: a second, missing file undoes the installation; events: -1 unchecked, 1 as healthy.
    const std::tuple<std::string, bool, int> rows[] = {
        {"", false, 1},          {"", true, 1},
        {"keepalive", false, 1}, {"error500", true, 1},
        {"refuse", true, 0},     {"silent", false, -1},
        {"notls", true, -1},     {"unresolvable", true, 0},
        {"bigconfig", false, 0}};
    std::size_t healthy[2] = {0, 0};
    for (const auto& [mode, fail, expected] : rows) {
        std::string config = kitetest::CollectorConfiguration(
            mode == "unresolvable" ? std::string(64, 'x') + ".invalid" : servers_.collector);
        if (mode == "bigconfig") config += "<!--" + std::string(300000, '-') + "-->";
        servers_.Clear();
        servers_.ServeConfiguration(config);
        servers_.SetCollectorMode(mode, 20);
        const auto command = [&](const std::string& file) {
            return "<command><src>" + package + "\\" + file + "</src><dst>" + product + "\\" +
                   file + "</dst><register>0</register></command>";
        };
        kitetest::WriteFileBytes(package + "\\manifest.xml",
                                 "<commands><appdir>" + product + "</appdir>" + command("a.txt") +
                                     (fail ? command("missing") : "") + "</commands>");
        // Every row starts from the same product folder, so rows report the same events.
        ::DeleteFileA((product + "\\a.txt").c_str());
        kitetest::WriteFileBytes(product + "\\CriticalFixes\\force_apply_kite.dat", "");
        const ULONGLONG start = ::GetTickCount64();
        const auto host = kitetest::RunProcess(Quote(kitetest::ExeFolder() + "\\kitehost.exe") +
                                               " update " + Quote(package));
        EXPECT_LT(::GetTickCount64() - start, 20000u) << mode;
        EXPECT_NE(host.output.find(fail ? " 0x80004005," : " 0x00000000,"), std::string::npos)
            << mode << host.output;
        servers_.SetCollectorMode("");
        const std::size_t events = servers_.Requests("collector").size();
        if (mode.empty()) {
            healthy[fail] = events;
            EXPECT_GE(events, 3u) << "every event is gone out";
            EXPECT_EQ(servers_.Connections("collector"), static_cast<int>(events));
        }
        if (expected >= 0) {
            EXPECT_EQ(events, expected ? healthy[fail] : 0u) << mode;
        }
    }
}

// The policy is read from memory: a file at the old download path is neither written nor deleted.
TEST_F(TelemetryNetworkTest, RestorePolicyDecidesOnlyFromADownloadedValue) {
    servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
    ReloadTelemetry();
    char roaming[MAX_PATH] = {};
    ::SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, 0, roaming);
    const std::string planted = std::string(roaming) + "\\restorekite.ini",
                      old = "[takebackup]\r\n27=1";
    kitetest::WriteFileBytes(planted, old);
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
        {27, 4008, "", 1, refused},
    };
    for (const auto& [major, release, policy, backups, last] : rows) {
        servers_.restoreServer_.SetString(policy.empty() ? "127.0.0.1:1" : servers_.restore);
        servers_.Clear();
        servers_.ServeRestoreFile(policy);
        EXPECT_EQ(kite::CKiteInstaller().TakeBackup(major, release), backups) << policy;
        const auto events = servers_.Requests("collector");
        ASSERT_FALSE(events.empty());
        EXPECT_NE(events.front().body.find(policy.empty() ? refused : fetched), npos);
        EXPECT_NE(events.back().body.find("& ErrorMessage=\"" + last + "\"&"), npos) << policy;
    }
    EXPECT_EQ(kitetest::ReadFileBytes(planted), old);
    ::DeleteFileA(planted.c_str());
}

}  // namespace
