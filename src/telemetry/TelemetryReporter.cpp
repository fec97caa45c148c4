#include "telemetry/TelemetryReporter.h"

#include "common/BoundedFormat.h"
#include "common/Handles.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "log/CommonFilesDataPath.h"
#include "log/ScopeLog.h"
#include "telemetry/Download.h"
#include "telemetry/DownloadServer.h"
#include "telemetry/EventBody.h"
#include "telemetry/NetworkWorker.h"
#include "telemetry/OperatingSystem.h"

#include <shlwapi.h>

#include <cstring>

namespace kite {

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

// Bounded in time and size like every download: a configuration server that hangs or streams
// without end costs seconds, and leaves telemetry off for the process.
std::string TelemetryReporter::FetchConfiguration() {
    try {
        const std::wstring address =
            WidenText(ConfigurationAddress(ReadDownloadServer(kConfigServerValue).authority));
        Download download = DownloadDocument(address, L"MyAgent");
        if (download.outcome == DownloadOutcome::kTooLarge) {
            ScopeLog log("TelemetryReporter::FetchConfiguration");
            log << "SplunkConfig.xml is larger than " << kMaxDocumentBytes
                << " bytes and counts as no document" << std::endl;
        }
        return download.outcome == DownloadOutcome::kDownloaded ? std::move(download.text)
                                                                : std::string();
    } catch (...) {
        return std::string();
    }
}

void TelemetryReporter::ApplyConfigElement(const ConfigElement& element) {
    kite::ApplyConfigElement(*this, element);
}

// Never throws and never waits on the network: the event is composed here and queued for the
// sending thread. A disabled channel composes nothing.
bool TelemetryReporter::ReportEvent(int, const char* message, bool isError) {
    try {
        if (!(isError ? ledEnabled : trackEnabled)) return true;
        const std::string operatingSystem = DescribeOperatingSystem();
        const std::size_t head =
            EventHeadLength(isError, isError ? ledToken : trackToken, operatingSystem);
        const std::size_t others =
            EventFields("", isError, slipStream, majorVersion, buildNumber).size();
        const std::size_t room =
            head + others < kEventBodyBytes - 1 ? kEventBodyBytes - 1 - head - others : 0;
        const std::string fields = EventFields(FitMessage(message, room).c_str(), isError,
                                               slipStream, majorVersion, buildNumber);
        Send(fields.c_str(), isError, "PROD", operatingSystem);
    } catch (...) {
    }
    return true;
}

bool TelemetryReporter::ComposeAndSend(const char* fields, bool isError, const char* environment) {
    std::string operatingSystem;
    try {
        operatingSystem = DescribeOperatingSystem();
    } catch (...) {
        throw 2;
    }
    Send(fields, isError, environment, operatingSystem);
    return true;
}

// The sending thread gets its own copy of the configuration: a reporter that is reloaded
// meanwhile does not change an event already queued.
void TelemetryReporter::Send(const char* fields, bool isError, const char* environment,
                             const std::string& operatingSystem) {
    GUID id = {};
    Platform().CoCreateGuid(&id);
    std::string body = ComposeEventBody(isError, isError ? ledToken : trackToken, FormatEventId(id),
                                        operatingSystem, fields);
    if (body.empty()) return;
    TelemetryReporter sender;
    static_cast<TelemetryConfig&>(sender) = *this;
    EnqueueNetworkWork(
        [sender, body, isError, env = std::string(environment ? environment : "")]() mutable {
            sender.PostEvent(body.c_str(), isError, env.c_str());
        });
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

void FlushTelemetry() {
    try {
        const std::size_t dropped = FlushNetworkWork(kFlushBoundMs);
        static bool told = false;
        if (dropped == 0 || told) return;
        told = true;
        ScopeLog log("TelemetryReporter::FlushTelemetry");
        log << dropped << " telemetry events dropped: the collector did not take them within "
            << kFlushBoundMs / 1000 << " s (later drops are not logged)" << std::endl;
    } catch (...) {
    }
}

}  // namespace kite
