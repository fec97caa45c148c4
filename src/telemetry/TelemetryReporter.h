// TelemetryReporter: the one object through which the update module sends events. On first use
// it downloads "SplunkConfig.xml"; nothing of it is kept on disk, so every process that reports
// fetches it again, and nothing is sent unless the document enables the event's channel.
// Telemetry never fails an operation and never holds one: events are queued for a sending thread
// of the library's own, and a post that fails or a disabled channel is invisible to the caller.
#pragma once

#include "telemetry/TelemetryConfig.h"

#include <windows.h>
#include <wininet.h>

#include <string>

namespace kite {

class TelemetryReporter : public TelemetryConfig {
  public:
    // Created on the first call, with the configuration loaded; never destroyed.
    static TelemetryReporter& Instance();

    // All fields at their starting values, no configuration loaded. Assigning a fresh object to
    // Instance() and calling LoadConfiguration() again gives a process (a test, a diagnostic) the
    // state of a first use without a new process.
    TelemetryReporter() = default;

    void LoadConfiguration();
    std::string FetchConfiguration();
    void ApplyConfigElement(const ConfigElement& element);

    // Queues the message as an error or an informational event for the "PROD" endpoints. Always
    // true and never throws; a message too long for the body is shortened (see FitMessage).
    bool ReportEvent(int unused, const char* message, bool isError);
    bool ComposeAndSend(const char* fields, bool isError, const char* environment);
    bool PostEvent(const char* body, bool isError, const char* environment);
    bool SendWithHeaders(HINTERNET request, const char* body, DWORD bodyLength, bool isError,
                         bool isPerf);

    void SetSlipStream(std::string text);
    void SetMajorVersion(std::string text);
    // "BuildNo" of section "BuildInfo" in the folder's "BuildInfo.ini".
    void LoadBuildNumber(const char* folder);

    std::string slipStream;
    std::string majorVersion;
    std::string buildNumber;
    std::string reserved;  // no code path writes it

  private:
    void Send(const char* fields, bool isError, const char* environment,
              const std::string& operatingSystem);
};

// Waits at most kFlushBoundMs (5 s) for the queued events to go out, then drops what is left;
// one log line per process tells how many were dropped. Never throws. Every export that reports
// calls it before it returns, so a host that looks at the collector afterwards sees its events.
void FlushTelemetry();

// Flushes when the scope ends, on every way out of an export.
class FlushOnReturn {
  public:
    FlushOnReturn() = default;
    ~FlushOnReturn() { FlushTelemetry(); }
    FlushOnReturn(const FlushOnReturn&) = delete;
    FlushOnReturn& operator=(const FlushOnReturn&) = delete;
};

}  // namespace kite
