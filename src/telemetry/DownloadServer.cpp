#include "telemetry/DownloadServer.h"

#include "log/CommonFilesDataPath.h"

#ifndef KITE_DOWNLOAD_SERVER
#define KITE_DOWNLOAD_SERVER "download.tolvix.com"
#endif

namespace kite {

const char* DefaultDownloadServer() { return KITE_DOWNLOAD_SERVER; }

ServerSetting ReadDownloadServer(const char* valueName) {
    std::unique_ptr<ProductParameterReader> reader =
        ProductParameterReader::CreateForCommonBranch();
    const char* value = nullptr;
    if (reader && reader->GetParameter(valueName, &value) == ProductParameterReader::kStatusOk &&
        *value != '\0') {
        return ServerSetting{value, true};
    }
    return ServerSetting{DefaultDownloadServer(), false};
}

std::string ConfigurationAddress(const std::string& authority) {
    return "https://" + authority + "//http.tolvix//TWDT_Files//Splunk//SplunkConfig.xml";
}

std::string RestoreFileAddress(const std::string& authority) {
    return "http://" + authority + "/http.tolvix/kite/restorekite.ini";
}

}  // namespace kite
