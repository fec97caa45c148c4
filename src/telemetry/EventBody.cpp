#include "telemetry/EventBody.h"

#include "common/BoundedFormat.h"

#include <cstring>

namespace kite {

namespace {

constexpr const char* kErrorHead =
    "appname=\"twdt\"&appcontext=\"led\"&scenario=\"\"&message=\"\"&messagetype=\"Error\"&token=";
constexpr const char* kInfoHead =
    "appname=\"twdt\"&appcontext=\"InstallTracker\"&scenario=\"\"&message=\"\"&messagetype="
    "\"Info\"&token=";
constexpr const char* kIdHead = "&tid=\"";
constexpr const char* kProjectPiece = "\"&ProjectName=\"TWUpdateKITE\"&";
constexpr std::size_t kEventIdChars = 36;

}  // namespace

std::string FormatEventId(const GUID& id) {
    char text[37];
    FormatBounded(text, "%08lX-%04hX-%04hX-%02hhX%02hhX-%02hhX%02hhX%02hhX%02hhX%02hhX%02hhX",
                  static_cast<unsigned long>(id.Data1), id.Data2, id.Data3, id.Data4[0],
                  id.Data4[1], id.Data4[2], id.Data4[3], id.Data4[4], id.Data4[5], id.Data4[6],
                  id.Data4[7]);
    return text;
}

std::string EventFields(const char* message, bool isError, const std::string& slipStream,
                        const std::string& majorVersion, const std::string& buildNumber) {
    return std::string("&") + (isError ? " ErrorMessage=\"" : " TrackingMessage=\"") +
           (message == nullptr ? "" : message) + "\"&" + " SlipStream=\"" + slipStream + "\"&" +
           " MajorVer=\"" + majorVersion + "\"&" + " KITEBuildNumber=\"" + buildNumber + "\"";
}

std::string FitMessage(const char* message, std::size_t room) {
    const std::string text = message == nullptr ? "" : message;
    if (text.size() <= room) return text;
    if (room < 3) return std::string();
    return text.substr(0, room - 3) + "...";
}

std::size_t EventHeadLength(bool isError, const std::string& token,
                            const std::string& operatingSystem) {
    return std::strlen(isError ? kErrorHead : kInfoHead) + token.size() + std::strlen(kIdHead) +
           kEventIdChars + std::strlen(kProjectPiece) + operatingSystem.size();
}

std::string ComposeEventBody(bool isError, const std::string& token, const std::string& eventId,
                             const std::string& operatingSystem, const char* fields) {
    std::string body = std::string(isError ? kErrorHead : kInfoHead) + token + kIdHead + eventId +
                       kProjectPiece + operatingSystem + (fields == nullptr ? "" : fields);
    if (body.size() >= kEventBodyBytes) body.clear();
    return body;
}

}  // namespace kite
