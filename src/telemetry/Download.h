// The verdicts and texts of the connectivity check and of the restore file's download.
#pragma once

#include <windows.h>
#include <netlistmgr.h>

#include <string>

namespace kite {

struct ConnectivityVerdict {
    int connected;
    const char* message;  // logged and reported when not connected; null otherwise
};

// Connected when an internet flag (IPv4 or IPv6) is set; local-only access counts as offline.
ConnectivityVerdict JudgeConnectivity(NLM_CONNECTIVITY connectivity);

// The fixed text for a download result; the caller appends the last error in decimal.
const char* DownloadResultText(HRESULT result);

}  // namespace kite
