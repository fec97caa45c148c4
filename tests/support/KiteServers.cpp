#include "support/KiteServers.h"

#include <algorithm>

namespace kitetest {

namespace {

constexpr const char* kShare = "C:\\kiteservers";

std::string Address(const char* key) {
    char value[200] = {};
    ::GetPrivateProfileStringA("servers", key, "", value, sizeof value,
                               (std::string(kShare) + "\\addresses.ini").c_str());
    if (value[0] == '\0') throw std::runtime_error("the test servers are not running");
    return value;
}

std::vector<std::string> Files(const std::string& folder, const std::string& prefix) {
    std::vector<std::string> names;
    WIN32_FIND_DATAA entry;
    HANDLE find = ::FindFirstFileA((folder + "\\" + prefix + "*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        const std::string name = entry.cFileName;
        if (name.size() < 5 || name.substr(name.size() - 5) != ".part") names.push_back(name);
    } while (::FindNextFileA(find, &entry));
    ::FindClose(find);
    std::sort(names.begin(), names.end());
    return names;
}

void EmptyFolder(const std::string& folder) {
    for (const std::string& name : Files(folder, "")) ::DeleteFileA((folder + "\\" + name).c_str());
}

}  // namespace

KiteServers::KiteServers()
    : config(Address("config")),
      restore(Address("restore")),
      collector(Address("collector")),
      configServer_(kCommonKey, "KiteConfigServer"),
      restoreServer_(kCommonKey, "KiteRestoreServer") {
    configServer_.SetString(config);
    restoreServer_.SetString(restore);
    SetCollectorMode("");
    Clear();
}

void KiteServers::ServeConfiguration(const std::string& document) const {
    WriteFileBytes(std::string(kShare) + "\\config\\SplunkConfig.xml", document);
}

void KiteServers::ServeRestoreFile(const std::string& content) const {
    WriteFileBytes(std::string(kShare) + "\\restore\\restorekite.ini", content);
}

void (*KiteServers::beforeReading)() = nullptr;

void KiteServers::SetCollectorMode(const std::string& mode, int holdSeconds) const {
    WriteFileBytes(std::string(kShare) + "\\control\\collector-mode", mode);
    WriteFileBytes(std::string(kShare) + "\\control\\collector-hold", std::to_string(holdSeconds));
}

void KiteServers::Clear() const {
    if (beforeReading != nullptr) beforeReading();  // an earlier test's events arrive first
    for (const char* folder : {"config", "restore", "requests", "connections"}) {
        EmptyFolder(std::string(kShare) + "\\" + folder);
    }
}

std::vector<HttpRequest> KiteServers::Requests(const std::string& server) const {
    if (beforeReading != nullptr) beforeReading();
    std::vector<HttpRequest> requests;
    const std::string folder = std::string(kShare) + "\\requests";
    for (const std::string& name : Files(folder, server + "-")) {
        HttpRequest request;
        request.raw = ReadFileBytes(folder + "\\" + name);
        const std::size_t end = request.raw.find("\r\n\r\n");
        request.head = request.raw.substr(0, end + 4);
        request.body = request.raw.substr(end + 4);
        requests.push_back(request);
    }
    return requests;
}

int KiteServers::Connections(const std::string& server) const {
    if (beforeReading != nullptr) beforeReading();
    return static_cast<int>(Files(std::string(kShare) + "\\connections", server + "-").size());
}

std::vector<ReceivedEvent> KiteServers::Events() const {
    std::vector<ReceivedEvent> events;
    for (const HttpRequest& request : Requests("collector")) {
        ReceivedEvent event;
        event.body = request.body;
        event.isError = request.body.find("&messagetype=\"Error\"&") != std::string::npos;
        const std::string head = event.isError ? "& ErrorMessage=\"" : "& TrackingMessage=\"";
        const std::size_t start = request.body.find(head);
        const std::size_t end = request.body.rfind("\"& SlipStream=\"");
        if (start != std::string::npos && end != std::string::npos && end >= start + head.size()) {
            event.message = request.body.substr(start + head.size(), end - start - head.size());
        }
        events.push_back(event);
    }
    return events;
}

std::vector<std::string> KiteServers::EventMessages() const {
    std::vector<std::string> messages;
    for (const ReceivedEvent& event : Events()) {
        messages.push_back((event.isError ? "error: " : "info: ") + event.message);
    }
    return messages;
}

std::string CollectorConfiguration(const std::string& collector) {
    const std::string loc = "<loc>" + collector + "</loc>";
    return "<?xml version=\"1.0\"?>\r\n<SplunkConfig>\r\n"
           "  <LED><enable>true</enable><token>LED-TOKEN</token>\r\n"
           "    <perf>" +
           loc +
           "<endpoint>/led/perf</endpoint><header>X-Env: perf</header></perf>\r\n"
           "    <prod>" +
           loc +
           "<endpoint>/led/prod</endpoint>"
           "<header>Authorization: Splunk led-prod</header></prod></LED>\r\n"
           "  <Track><enable>true</enable><token>TRACK-TOKEN</token>\r\n"
           "    <perf>" +
           loc +
           "<endpoint>/track/perf</endpoint><header>X-Env: track</header></perf>\r\n"
           "    <prod>" +
           loc +
           "<endpoint>/track/prod</endpoint><header></header></prod></Track>\r\n"
           "  <KILL_SWITCH>true</KILL_SWITCH>\r\n"
           "</SplunkConfig>\r\n";
}

}  // namespace kitetest
