#include "telemetry/TelemetryReporter.h"

#include "support/Telemetry.h"

#include <regex>
#include <set>

namespace {

using kite::TelemetryReporter;

using kitetest::ReloadTelemetry;

// A POST as WinINet puts it on the wire: its own Host and Content-Length, then the module's
// headers.
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

TEST_F(TelemetryNetworkTest, EventsReachTheCollectorAsComposed) {
    servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
    TelemetryReporter& reporter = ReloadTelemetry();
    kitetest::TempFolder package("package");
    kitetest::WriteFileBytes(package / "BuildInfo.ini", "[BuildInfo]\r\nBuildNo=123\r\n");
    const std::string id = "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX";
    const std::string head = "appname=\"twdt\"&appcontext=";
    struct Row {
        bool isError;
        bool facts;
        const char* message;
        std::string request;
    };
    const Row rows[] = {
        {true, true, "CKiteInstaller::Install failed, proceeding for Abort ",
         Post(
             servers_.collector, "/led/prod", "Authorization: Splunk led-prod",
             head +
                 "\"led\"&scenario=\"\"&message=\"\"&messagetype=\"Error\"&token=LED-TOKEN&tid=\"" +
                 id +
                 "\"&ProjectName=\"TWUpdateKITE\"&OS=\"32 Bit Windows7 SP1\"&& ErrorMessage=\""
                 "CKiteInstaller::Install failed, proceeding for Abort \"& SlipStream=\"3\"& "
                 "MajorVer=\"27\"& KITEBuildNumber=\"123\"")},
        {false, false, "a&b=\"c\"",
         Post(servers_.collector, "/track/prod", "",
              head +
                  "\"InstallTracker\"&scenario=\"\"&message=\"\"&messagetype=\"Info\"&token="
                  "TRACK-TOKEN&tid=\"" +
                  id +
                  "\"&ProjectName=\"TWUpdateKITE\"&OS=\"32 Bit Windows7 SP1\"&& "
                  "TrackingMessage=\"a&b=\"c\"\"& SlipStream=\"\"& MajorVer=\"\"& "
                  "KITEBuildNumber=\"\"")},
    };
    const std::regex tid("tid=\"([0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12})\"");
    std::set<std::string> ids;
    for (const Row& row : rows) {
        reporter.SetSlipStream(row.facts ? "3" : "");
        reporter.SetMajorVersion(row.facts ? "27" : "");
        reporter.buildNumber.clear();
        if (row.facts) reporter.LoadBuildNumber(package.path().c_str());
        servers_.Clear();

        EXPECT_TRUE(reporter.ReportEvent(0, row.message, row.isError));
        const auto requests = servers_.Requests("collector");
        ASSERT_EQ(requests.size(), 1u) << row.message;
        std::smatch found;
        ASSERT_TRUE(std::regex_search(requests[0].raw, found, tid)) << requests[0].raw;
        ids.insert(found[1]);
        EXPECT_EQ(std::regex_replace(requests[0].raw, tid, "tid=\"" + id + "\""), row.request);
    }
    EXPECT_EQ(ids.size(), 2u) << "each event has its own identifier";
}

TEST_F(TelemetryNetworkTest, EnvironmentPdsPostsToThePerfEndpoints) {
    servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
    TelemetryReporter& reporter = ReloadTelemetry();
    struct Row {
        const char* environment;
        bool isError;
        const char* path;
        const char* header;
    };
    const Row rows[] = {
        {"PDS", true, "/led/perf", "X-Env: perf"},
        {"", true, "/led/prod", "Authorization: Splunk led-prod"},
        {"PDS", false, "/track/perf", "X-Env: track"},
        {"PDSX", false, "/track/prod", ""},
    };
    for (const Row& row : rows) {
        servers_.Clear();
        EXPECT_TRUE(reporter.PostEvent("k=v", row.isError, row.environment)) << row.path;
        const auto requests = servers_.Requests("collector");
        ASSERT_EQ(requests.size(), 1u) << row.path;
        EXPECT_EQ(requests[0].raw, Post(servers_.collector, row.path, row.header, "k=v"));
    }
}

// Whatever the server sends, the host goes on; only a document that enables a channel lets an
// event leave the machine.
TEST_F(TelemetryNetworkTest, FetchedDocumentsDecideWhetherAnythingIsSent) {
    const std::string good = kitetest::CollectorConfiguration(servers_.collector);
    const std::size_t open = good.find("<SplunkConfig>") + 14;
    const std::string padded =
        good.substr(0, open) + "<!--" + std::string(3000, '-') + " -->" + good.substr(open);
    std::string zeroed = padded;
    zeroed[30] = '\0';  // inside the root element's name
    std::string deep;
    for (int i = 0; i < 100000; ++i) deep += "<LED>";
    std::string large = good.substr(0, open);
    for (int i = 0; i < 250000; ++i) large += "<pad>x</pad>";
    large += good.substr(open);
    std::string disabled = good;
    for (std::size_t at; (at = disabled.find(">true</enable>")) != std::string::npos;) {
        disabled.replace(at, 5, ">false");
    }
    struct Row {
        const char* what;
        const std::string* served;  // null: 404
        std::string fetched;
        int events;
    };
    const std::string empty, notXml = "{\"LED\": true}";
    const Row rows[] = {
        {"a document of several chunks", &padded, padded, 2},
        {"a zero byte cuts its chunk short", &zeroed, padded.substr(0, 30) + padded.substr(2000),
         0},
        {"both channels disabled", &disabled, disabled, 0},
        {"an empty document", &empty, "", 0},
        {"not XML", &notXml, notXml, 0},
        {"nested 100,000 levels deep", &deep, deep, 0},
        {"several megabytes", &large, large, 2},
        {"no document (404)", nullptr, "not found", 0},
    };
    for (const Row& row : rows) {
        servers_.Clear();
        if (row.served != nullptr) servers_.ServeConfiguration(*row.served);
        TelemetryReporter& reporter = ReloadTelemetry();
        EXPECT_TRUE(reporter.FetchConfiguration() == row.fetched) << row.what;
        EXPECT_EQ(servers_.Requests("config").back().raw,
                  "GET //http.tolvix//TWDT_Files//Splunk//SplunkConfig.xml HTTP/1.1\r\nAccept: "
                  "*/*\r\nHost: " +
                      servers_.config + "\r\nUser-Agent: MyAgent\r\n\r\n");
        EXPECT_TRUE(reporter.ReportEvent(0, "error", true)) << row.what;
        EXPECT_TRUE(reporter.ReportEvent(0, "info", false)) << row.what;
        EXPECT_EQ(servers_.Connections("collector"), row.events) << row.what;
        EXPECT_EQ(servers_.Requests("collector").size(), static_cast<std::size_t>(row.events))
            << row.what;
    }
    servers_.configServer_.SetString("127.0.0.1:1");
    TelemetryReporter& unreachable = ReloadTelemetry();
    EXPECT_EQ(unreachable.FetchConfiguration(), "");
    EXPECT_FALSE(unreachable.ledEnabled || unreachable.trackEnabled);
    EXPECT_TRUE(unreachable.ReportEvent(0, "error", true));
    EXPECT_EQ(servers_.Connections("collector"), 0);
}

}  // namespace
