#include "installer/KiteInstaller.h"

#include "support/KiteTest.h"
#include "telemetry/TelemetryReporter.h"

#include <filesystem>
#include <regex>
#include <set>
#include <tuple>

namespace {

using namespace kitetest;
constexpr auto npos = std::string::npos;

// The loopback servers (scripts/kiteservers.py), seen through the folder they share with Wine.
const std::string kShare = "C:\\kiteservers\\";

std::string Address(const char* key) {
    char value[200] = {};
    ::GetPrivateProfileStringA("servers", key, "", value, sizeof value,
                               (kShare + "addresses.ini").c_str());
    if (value[0] == '\0') throw std::runtime_error("the test servers are not running");
    return value;
}

// Sorted, without the partial files that a server is still writing. Events leave through the
// library's sending thread: what the servers received is read after it has sent them.
std::set<std::string> Files(const std::string& folder, const std::string& prefix = "") {
    kite::FlushTelemetry();
    std::set<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(kShare + folder)) {
        const std::filesystem::path& path = entry.path();
        if (path.filename().string().rfind(prefix, 0) == 0 && path.extension() != ".part") {
            paths.insert(path.string());
        }
    }
    return paths;
}

// While one lives, the registry points the library at the servers (cleared when it is made).
struct KiteServers {
    KiteServers() : restore(Address("restore")), collector(Address("collector")) {
        configServer_.SetString(Address("config"));
        restoreServer_.SetString(restore);
        SetCollectorMode("");
        Clear();
    }
    void ServeConfiguration(const std::string& document) const {
        WriteFileBytes(kShare + "config\\SplunkConfig.xml", document);
    }
    // How the collector behaves (see scripts/kiteservers.py); "" answers and closes.
    void SetCollectorMode(const std::string& mode, int holdSeconds = 30) const {
        WriteFileBytes(kShare + "control\\collector-mode", mode);
        WriteFileBytes(kShare + "control\\collector-hold", std::to_string(holdSeconds));
    }
    // Served documents go away too: 404.
    void Clear() const {
        for (const char* folder : {"config", "restore", "requests", "connections"}) {
            for (const std::string& path : Files(folder)) ::DeleteFileA(path.c_str());
        }
    }
    // The collector's, in arrival order, raw: request line, headers in order, blank line, body.
    std::vector<std::string> Requests() const {
        std::vector<std::string> requests;
        for (const std::string& path : Files("requests", "collector-"))
            requests.push_back(ReadFileBytes(path));
        return requests;
    }
    std::size_t Connections() const { return Files("connections", "collector-").size(); }

    std::string restore, collector;  // host:port; the collector's host (port 443)
    RegistryValue configServer_{kCommonKey, "KiteConfigServer"};
    RegistryValue restoreServer_{kCommonKey, "KiteRestoreServer"};
};

// Both channels enabled, each endpoint set with its own path.
std::string CollectorConfiguration(const std::string& collector) {
    return std::regex_replace(
        "<?xml version=\"1.0\"?>\r\n<SplunkConfig><LED><enable>true</enable><token>LED-TOKEN"
        "</token><perf><loc>@</loc><endpoint>/led/perf</endpoint><header>X-Env: perf</header>"
        "</perf><prod><loc>@</loc><endpoint>/led/prod</endpoint><header>Authorization: Splunk "
        "led-prod</header></prod></LED><Track><enable>true</enable><token>TRACK-TOKEN</token>"
        "<perf><loc>@</loc><endpoint>/track/perf</endpoint><header>X-Env: track</header></perf>"
        "<prod><loc>@</loc><endpoint>/track/prod</endpoint><header></header></prod></Track>"
        "<KILL_SWITCH>true</KILL_SWITCH></SplunkConfig>\r\n",
        std::regex("@"), collector);
}

std::string Describe(const kite::TelemetryConfig& c) {
    std::string text = std::to_string(c.ledEnabled) + c.ledToken + " " +
                       std::to_string(c.trackEnabled) + c.trackToken + " " +
                       std::to_string(c.killSwitchOpen) + " ";
    for (const kite::EndpointSet* set : {&c.ledPerf, &c.ledProd, &c.trackPerf, &c.trackProd})
        text += "[" + set->host + "|" + set->path + "|" + set->header + "]";
    return text;
}

// Read over channels enabled with token "old": each row shows what the document changes.
TEST(TelemetryConfig, DocumentsAreReadByElementNamesAndCursors) {
    kite::TelemetryConfig before;
    before.ledEnabled = before.trackEnabled = true, before.ledToken = before.trackToken = "old";
    const std::string none = "[||][||][||][||]", failed = "0old 0old 0 " + none;
    const std::pair<std::string, std::string> rows[] = {
        {"<c><LED><enable>true</enable><token>L</token><perf><loc>a</loc><endpoint>/p</endpoint>"
         "<header>H: 1</header></perf><prod><loc>b</loc><endpoint>/q</endpoint></prod></LED>"
         "<Track><enable>false</enable><token>T</token><prod><loc>c</loc></prod><perf>"
         "<header>H: 2</header></perf></Track></c>",
         "1L 0T 0 [a|/p|H: 1][b|/q|][||H: 2][c||]"},
        {"<c><LED><enable>True</enable></LED><Track><enable>true </enable></Track></c>", failed},
        // Cursors are plain state, not scopes; names are whole and case-sensitive.
        {"<c><LED><perf><Track/></perf><enable>false</enable><loc>x</loc></LED></c>",
         "1old 0old 0 [||][||][x||][||]"},
        {"<c><led><LEDs><enable>false</enable></LEDs></led></c>", "1old 0old 0 " + none},
        {"<c><LED><token>a</token><token>b</token><token/><enable/></LED></c>",
         "1b 1old 0 " + none},
        {"<c><KILL_SWITCH>true</KILL_SWITCH></c>", "1old 1old 0 " + none},
        {"<c><KILL_SWITCH>off<enable>false</enable></KILL_SWITCH></c>", "1old 1old 1 " + none},
        {std::string("<c><LED><enable>no</enable></LED></c>\0<Track>", 45), "0old 1old 0 " + none},
        {std::regex_replace(std::string(100000, '.'), std::regex("\\."), "<a>"), failed},
    };
    for (const auto& [document, read] : rows) {
        EXPECT_EQ(Describe(kite::ApplyConfigurationText(before, document)), read)
            << document.substr(0, 80);
    }
}

// The reporter as on its first use in a process: its events on the wire ("PDS" alone is the perf
// environment; a message too long for the body is cut to fit and marked), and the restore policy,
// read from memory: a file at its old download path is neither written nor deleted.
TEST(TelemetryNetworkTest, EventsAndTheRestorePolicyCrossTheWireByteForByte) {
    KiteServers servers;
    servers.ServeConfiguration(CollectorConfiguration(servers.collector));
    kite::TelemetryReporter& reporter = kite::TelemetryReporter::Instance() = {};
    reporter.LoadConfiguration();
    reporter.slipStream = "3", reporter.majorVersion = "27", reporter.buildNumber = "123";
    reporter.PostEvent("k=v", true, "PDS");
    reporter.PostEvent("k=v", false, "PDSX");
    reporter.ReportEvent(0, "CKiteInstaller::Install failed, proceeding for Abort ", true);
    reporter.ReportEvent(0, std::string(5000, 'x').c_str(), false);
    const auto requests = servers.Requests();
    ASSERT_EQ(requests.size(), 4u);
    const std::string any = "HTTP/1.1\r\n[\\s\\S]*urlencoded\r\n";
    const std::string expected[] = {
        "POST /led/perf " + any + "X-Env: perf\r\n\r\nk=v", "POST /track/prod " + any + "\r\nk=v",
        "POST /led/prod HTTP/1.1\r\nHost: " + servers.collector +
            "\r\nContent-Length: 310\r\nContent-Type: application/x-www-form-urlencoded\r\n"
            "Authorization: Splunk led-prod\r\n\r\nappname=\"twdt\"&appcontext=\"led\"&scenario="
            "\"\"&message=\"\"&messagetype=\"Error\"&token=LED-TOKEN&tid=\"[0-9A-F]{8}(-[0-9A-F]{4}"
            "){3}-[0-9A-F]{12}\"&ProjectName=\"TWUpdateKITE\"&OS=\"32 Bit Windows7 SP1\"&& Error"
            "Message=\"CKiteInstaller::Install failed, proceeding for Abort \"& SlipStream=\"3\"& "
            "MajorVer=\"27\"& KITEBuildNumber=\"123\"",
        "[\\s\\S]*Length: 1699\r\n[\\s\\S]*\"Info\"&token=TRACK-TOKEN&.*& TrackingMessage="
        "\"x+\\.\\.\\.\"& SlipStream=.*"};
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(std::regex_match(requests[i], std::regex(expected[i]))) << requests[i];
    const std::string planted = std::string(std::getenv("APPDATA")) + "\\restorekite.ini";
    WriteFileBytes(planted, "[takebackup]\r\n27=1");
    const std::string download = "CKiteInstaller::SendRequestAndGetResponse ",
                      fetched = download + "Successfully downloaded the ini with GetLastError:  0";
    // policy "": the server refuses; last: the last event's message.
    const std::tuple<unsigned, unsigned, std::string, int, std::string> rows[] = {
        {27, 4008, "[TakeBackup]\r\n 27 = 4008 \r\n", 0, fetched},
        {27, 4008, "[takebackup]\r\n27=4100\r\n", 1, fetched},
        {25, 4000, "[takebackup]\r\n26=1\r\n[other]\r\n25=1\r\n", 1,
         "CKiteInstaller::TakeBackup Failed to read from restorekite.ini files with "
         "GetLastError :  2"},
        {27, 4009, "", 0, download + "URL is invalid with GetLastError :  12029"},
    };
    for (const auto& [major, release, policy, backups, last] : rows) {
        servers.restoreServer_.SetString(policy.empty() ? "127.0.0.1:1" : servers.restore);
        servers.Clear();
        WriteFileBytes(kShare + "restore\\restorekite.ini", policy);
        EXPECT_EQ(kite::CKiteInstaller().TakeBackup(major, release), backups) << policy;
        const auto events = servers.Requests();
        EXPECT_NE(events.empty() ? npos : events.back().find("& ErrorMessage=\"" + last + "\"&"),
                  npos)
            << policy;
    }
    EXPECT_EQ(ReadFileBytes(planted), "[takebackup]\r\n27=1");
    ::DeleteFileA(planted.c_str());
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
    const std::string copy = "<command><src>" + package + "\\a.txt</src><dst>" + product +
                             "\\a.txt</dst><register>0</register></command>";
    // fail: a second, missing file undoes the installation; events: -1 unchecked, 1 as healthy.
    const std::tuple<std::string, bool, int> rows[] = {
        {"", false, 1},          {"", true, 1},
        {"keepalive", false, 1}, {"error500", true, 1},
        {"refuse", true, 0},     {"silent", false, -1},
        {"notls", true, -1},     {"unresolvable", true, 0},
        {"bigconfig", false, 0}};
    std::size_t healthy[2] = {0, 0};
    for (const auto& [mode, fail, expected] : rows) {
        servers.Clear();
        servers.ServeConfiguration(
            CollectorConfiguration(mode == "unresolvable" ? std::string(64, 'x') + ".invalid"
                                                          : servers.collector) +
            (mode == "bigconfig" ? "<!--" + std::string(300000, '-') + "-->" : ""));
        servers.SetCollectorMode(mode, 20);
        WriteFileBytes(package + "\\manifest.xml",
                       "<commands><appdir>" + product + "</appdir>" + copy +
                           (fail ? std::regex_replace(copy, std::regex("a\\.txt"), "b") : "") +
                           "</commands>");
        ::DeleteFileA((product + "\\a.txt").c_str());
        WriteFileBytes(product + "\\CriticalFixes\\force_apply_kite.dat", "");
        const ULONGLONG start = ::GetTickCount64();
        const auto host =
            RunProcess(Quote(ExeFolder() + "\\kitehost.exe") + " update " + Quote(package));
        EXPECT_LT(::GetTickCount64() - start, 20000u) << mode;
        EXPECT_NE(host.output.find(fail ? " 0x80004005," : " 0x00000000,"), npos)
            << mode << host.output;
        const std::size_t events = servers.Requests().size();
        if (mode.empty()) healthy[fail] = events;
        EXPECT_EQ(mode.empty() ? servers.Connections() : events, events);
        EXPECT_EQ(events, expected < 0 ? events : expected ? healthy[fail] : 0u) << mode;
    }
    EXPECT_GE(std::min(healthy[0], healthy[1]), 3u) << "every event is gone out";
}

// wininet and bcrypt are not known DLLs: in Windows' search order (set for this program) a copy
// beside the host comes first. A host reads versions, downloads, posts events, checks a digest,
// and the planted copies never load (Wine's user32 imports version.dll: any host loads that one).
TEST(TelemetryNetworkTest, PlantedSystemDllsNeverLoad) {
    KiteServers servers;
    servers.ServeConfiguration(CollectorConfiguration(servers.collector));
    TempFolder folder("planted");
    const std::string product = folder / "product", a = folder / "a.txt";
    for (const std::string name : {"kitehost.exe", "KITEUpdate.dll"})
        CopyFileTo(ExeFolder() + "\\" + name, folder / name);
    for (const std::string name : {"wininet.dll", "bcrypt.dll"})
        CopyFileTo(FixturePath("kiteplanted.dll"), folder / name);
    CreateFolders(product + "\\CriticalFixes");
    for (const std::string name : {"tww.exe", "BASECORE.DLL", "Options.DLL"})
        CopyFileTo(FixturePath(name[0] == 't' ? "tw27-program-4008.exe" : "tw27-library-4008.dll"),
                   product + "\\" + name);
    WriteFileBytes(folder / "kite.ini", "[KITEApplicability]\r\nSlipstreams=R8\r\n");
    WriteFileBytes(a, "a");
    WriteFileBytes(folder / "manifest.xml",
                   "<commands><appdir>" + product + "</appdir><command><src>" + a + "</src><dst>" +
                       product +
                       "\\a.txt</dst><register>0</register><sha256>ca978112ca1bbdcafac231"
                       "b39a23dc4da786eff8147c4e72b9807785afee48bb</sha256></command></commands>");
    ASSERT_NE(std::getenv("WINEDLLOVERRIDES"), nullptr) << "set for this program by CTest";
    const auto run = RunProcess(Quote(folder / "kitehost.exe") + " update " + Quote(folder.path()));
    EXPECT_FALSE(Exists(folder / "wininet.dll.loaded") || Exists(folder / "bcrypt.dll.loaded"));
    EXPECT_TRUE(
        std::regex_search(run.output, std::regex("Slipstream2\\) \\.+ 8\r\n[\\s\\S]* 0x00000000,")))
        << run.output;
    EXPECT_FALSE(servers.Requests().empty());
}

}  // namespace
