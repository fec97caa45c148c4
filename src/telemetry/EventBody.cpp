#include "telemetry/EventBody.h"

#include "common/BoundedFormat.h"

namespace kite {

namespace {

constexpr const char* kErrorHead =
    "appname=\"twdt\"&appcontext=\"led\"&scenario=\"\"&message=\"\"&messagetype=\"Error\"&token=";
constexpr const char* kInfoHead =
    "appname=\"twdt\"&appcontext=\"InstallTracker\"&scenario=\"\"&message=\"\"&messagetype="
    "\"Info\"&token=";

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

std::string ComposeEventBody(bool isError, const std::string& token, const std::string& eventId,
                             const std::string& operatingSystem, const char* fields) {
    char body[kEventBodyBytes] = {};
    AppendBounded(body, isError ? kErrorHead : kInfoHead);
    AppendBounded(body, token.c_str());
    AppendBounded(body, "&tid=\"");
    AppendBounded(body, eventId.c_str());
    AppendBounded(body, "\"&ProjectName=\"TWUpdateKITE\"&");
    AppendBounded(body, operatingSystem.c_str());
    AppendBounded(body, fields == nullptr ? "" : fields);
    return body;
}

}  // namespace kite
