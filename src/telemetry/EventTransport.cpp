// The HTTPS post of one event, on the sending thread. Every event opens its own internet handle
// and connection and closes them again: the module keeps nothing open between events. Every
// handle carries time-outs, as Wine's WinINet sets none of its own.
#include "telemetry/TelemetryReporter.h"

#include "common/BoundedFormat.h"
#include "common/Handles.h"
#include "common/Platform.h"
#include "telemetry/NetworkWorker.h"

#include <cstring>
#include <vector>

namespace kite {

namespace {

constexpr std::size_t kEndpointBufferBytes = 1000;
constexpr DWORD kReplyBufferBytes = 500;
constexpr DWORD kRequestFlags = INTERNET_FLAG_SECURE | INTERNET_FLAG_NO_COOKIES;
constexpr const char* kContentTypeHeader = "Content-Type: application/x-www-form-urlencoded";

// The reply is read to its end so that the connection closes cleanly; its content is not used.
void DrainReply(HINTERNET request) {
    char reply[kReplyBufferBytes];
    DWORD read = 0;
    do {
        read = 0;
        Platform().InternetReadFile(request, reply, kReplyBufferBytes - 1, &read);
        reply[read < kReplyBufferBytes ? read : 0] = '\0';
    } while (read > 0);
}

}  // namespace

bool TelemetryReporter::PostEvent(const char* body, bool isError, const char* environment) {
    if (killSwitchGate && !killSwitchOpen) return false;
    if (!(isError ? ledEnabled : trackEnabled) || body == nullptr) return false;
    const bool isPerf = IsPerfEnvironment(environment);
    const EndpointSet& endpoint = ChooseEndpoint(*this, isError, isPerf);
    // A host or path that the configuration made longer than the buffer is not sent.
    if (endpoint.host.size() >= kEndpointBufferBytes ||
        endpoint.path.size() >= kEndpointBufferBytes) {
        return false;
    }
    try {
        char target[kEndpointBufferBytes];
        FormatBounded(target, "%s", endpoint.host.c_str());
        UniqueInternet internet(
            Platform().InternetOpenA(nullptr, INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
        if (!internet) return false;
        SetNetworkTimeouts(internet.get(), true);
        UniqueInternet connection(
            Platform().InternetConnectA(internet.get(), target, INTERNET_DEFAULT_HTTPS_PORT,
                                        nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0));
        if (!connection) return false;
        SetNetworkTimeouts(connection.get(), false);
        FormatBounded(target, "%s", endpoint.path.c_str());
        UniqueInternet request(Platform().HttpOpenRequestA(
            connection.get(), "POST", target, nullptr, nullptr, nullptr, kRequestFlags, 0));
        if (!request) return false;
        SetNetworkTimeouts(request.get(), false);
        const std::size_t length = std::strlen(body);
        std::vector<char> copy(length + 1, '\0');
        std::memcpy(copy.data(), body, length);
        return SendWithHeaders(request.get(), copy.data(), static_cast<DWORD>(length), isError,
                               isPerf);
    } catch (...) {
        throw 1;
    }
}

bool TelemetryReporter::SendWithHeaders(HINTERNET request, const char* body, DWORD bodyLength,
                                        bool isError, bool isPerf) {
    const std::string text =
        std::string(kContentTypeHeader) + "\r\n" + ChooseEndpoint(*this, isError, isPerf).header;
    std::vector<char> headers(text.begin(), text.end());
    headers.push_back('\0');
    if (!Platform().HttpSendRequestA(request, headers.data(), static_cast<DWORD>(text.size()),
                                     const_cast<char*>(body), bodyLength)) {
        return false;
    }
    // The request is not ended with HttpEndRequestA: after a plain HttpSendRequestA, Wine's
    // HttpEndRequestA reads a second response, which a keep-alive collector never sends, so each
    // event would cost the receive time-out. The post is completed when the send got its reply.
    DrainReply(request);
    return true;
}

}  // namespace kite
