#include "telemetry/TelemetryReporter.h"

#include "common/BoundedFormat.h"
#include "common/Handles.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "log/CommonFilesDataPath.h"
#include "telemetry/DownloadServer.h"
#include "telemetry/EventBody.h"
#include "telemetry/OperatingSystem.h"

#include <shlwapi.h>

#include <cstring>

namespace kite {

namespace {

constexpr DWORD kConfigChunkBytes = 2000;

}  // namespace

TelemetryReporter& TelemetryReporter::Instance() {
    // Deliberately never destroyed: events may be reported until the process ends.
    static TelemetryReporter* const reporter = [] {
        TelemetryReporter* created = new TelemetryReporter();
        created->LoadConfiguration();
        return created;
    }();
    return *reporter;
}

void TelemetryReporter::LoadConfiguration() {
    static_cast<TelemetryConfig&>(*this) = ApplyConfigurationText(*this, FetchConfiguration());
}

std::string TelemetryReporter::FetchConfiguration() {
    try {
        const std::wstring address =
            WidenText(ConfigurationAddress(ReadDownloadServer(kConfigServerValue).authority));
        UniqueInternet root(Platform().InternetOpenW(L"MyAgent", INTERNET_OPEN_TYPE_PRECONFIG,
                                                     nullptr, nullptr, 0));
        if (!root) return std::string();
        UniqueInternet url(
            Platform().InternetOpenUrlW(root.get(), address.c_str(), nullptr, 0,
                                        INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE, 0));
        if (!url) return std::string();
        std::string document;
        char chunk[kConfigChunkBytes + 1];
        DWORD read = 0;
        do {
            std::memset(chunk, 0, sizeof chunk);
            read = 0;
            // The read's own verdict is not needed: a failing read reports 0 bytes and ends the
            // document as its end would.
            Platform().InternetReadFile(url.get(), chunk, kConfigChunkBytes, &read);
            document.append(chunk);
        } while (read > 0);
        return document;
    } catch (...) {
        return std::string();
    }
}

void TelemetryReporter::ApplyConfigElement(const ConfigElement& element) {
    kite::ApplyConfigElement(*this, element);
}

bool TelemetryReporter::ReportEvent(int, const char* message, bool isError) {
    const std::string fields = EventFields(message, isError, slipStream, majorVersion, buildNumber);
    return ComposeAndSend(fields.c_str(), isError, "PROD");
}

bool TelemetryReporter::ComposeAndSend(const char* fields, bool isError, const char* environment) {
    GUID id = {};
    Platform().CoCreateGuid(&id);
    std::string operatingSystem;
    try {
        operatingSystem = DescribeOperatingSystem();
    } catch (...) {
        throw 2;
    }
    const std::string body = ComposeEventBody(isError, isError ? ledToken : trackToken,
                                              FormatEventId(id), operatingSystem, fields);
    PostEvent(body.c_str(), isError, environment);
    return true;
}

void TelemetryReporter::SetSlipStream(std::string text) { slipStream = std::move(text); }

void TelemetryReporter::SetMajorVersion(std::string text) { majorVersion = std::move(text); }

void TelemetryReporter::LoadBuildNumber(const char* folder) {
    try {
        if (folder == nullptr) return;
        char path[kPathChars];
        FormatBounded(path, "%s\\BuildInfo.ini", folder);
        if (!::PathFileExistsA(path)) return;
        char value[200] = {};
        if (::GetPrivateProfileStringA("BuildInfo", "BuildNo", "", value, sizeof value, path) < 1) {
            return;
        }
        buildNumber = value;
    } catch (...) {
        buildNumber.clear();
    }
}

}  // namespace kite
