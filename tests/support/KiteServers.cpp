#include "support/KiteServers.h"

#include <filesystem>
#include <regex>
#include <set>

namespace kitetest {

namespace {

std::string Address(const char* key) {
    char value[200] = {};
    ::GetPrivateProfileStringA("servers", key, "", value, sizeof value,
                               (kShare + "addresses.ini").c_str());
    if (value[0] == '\0') throw std::runtime_error("the test servers are not running");
    return value;
}

// Sorted, without the partial files that a server is still writing; an earlier test's events
// arrive first.
std::set<std::string> Files(const std::string& folder, const std::string& prefix = "") {
    if (KiteServers::beforeReading != nullptr) KiteServers::beforeReading();
    std::set<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(kShare + folder)) {
        const std::filesystem::path& path = entry.path();
        if (path.filename().string().rfind(prefix, 0) == 0 && path.extension() != ".part") {
            paths.insert(path.string());
        }
    }
    return paths;
}

}  // namespace

KiteServers::KiteServers()
    : restore(Address("restore")),
      collector(Address("collector")),
      configServer_(kCommonKey, "KiteConfigServer"),
      restoreServer_(kCommonKey, "KiteRestoreServer") {
    configServer_.SetString(Address("config"));
    restoreServer_.SetString(restore);
    SetCollectorMode("");
    Clear();
}

void (*KiteServers::beforeReading)() = nullptr;

void KiteServers::Clear() const {
    for (const char* folder : {"config", "restore", "requests", "connections"}) {
        for (const std::string& path : Files(folder)) ::DeleteFileA(path.c_str());
    }
}

std::vector<std::string> KiteServers::Requests() const {
    std::vector<std::string> requests;
    for (const std::string& path : Files("requests", "collector-")) {
        requests.push_back(ReadFileBytes(path));
    }
    return requests;
}

std::size_t KiteServers::Connections() const { return Files("connections", "collector-").size(); }

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

}  // namespace kitetest
