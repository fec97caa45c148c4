// Where the download server is. The product maker's server holds the telemetry configuration
// "SplunkConfig.xml" (https) and the restore policy "restorekite.ini" (plain http). A build names
// a default host; a machine can point either file elsewhere (a mirror, a test server) with a
// REG_SZ value under HKLM\Software\Tolvix\TallowmereCommon holding the authority (host or
// host:port) to use.
#pragma once

#include <string>

namespace kite {

constexpr const char* kConfigServerValue = "KiteConfigServer";
constexpr const char* kRestoreServerValue = "KiteRestoreServer";

struct ServerSetting {
    std::string authority;
    bool fromRegistry;
};

// The compiled-in host (KITE_DOWNLOAD_SERVER of the build).
const char* DefaultDownloadServer();

// The registry value when it is a non-empty REG_SZ, else the compiled-in host.
ServerSetting ReadDownloadServer(const char* valueName);

// The doubled slashes are part of the path as the server publishes it.
std::string ConfigurationAddress(const std::string& authority);
std::string RestoreFileAddress(const std::string& authority);

}  // namespace kite
