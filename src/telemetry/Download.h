// The installer's only contact with the network outside telemetry: whether the machine is online,
// and the restore policy "restorekite.ini", fetched into memory (never onto a disk path that a
// user could plant a link at). Also the bounded in-memory download that the telemetry
// configuration shares.
#pragma once

#include <windows.h>
#include <netlistmgr.h>

#include <cstddef>
#include <string>

namespace kite {

// A document larger than this is refused whole: neither file is ever near it, and a server that
// streams without end must not fill the host's memory.
constexpr std::size_t kMaxDocumentBytes = 256 * 1024;

struct ConnectivityVerdict {
    int connected;
    const char* message;  // logged and reported when not connected; null otherwise
};

// Connected when an internet flag (IPv4 or IPv6) is set; local-only access counts as offline.
ConnectivityVerdict JudgeConnectivity(NLM_CONNECTIVITY connectivity);

// The fixed text for a download result; the caller appends the last error in decimal.
const char* DownloadResultText(HRESULT result);

enum class DownloadOutcome { kDownloaded, kFailed, kTooLarge };

struct Download {
    DownloadOutcome outcome = DownloadOutcome::kFailed;
    DWORD lastError = 0;
    std::string text;  // each chunk up to its first zero byte
};

// GET of the address with the given agent name, bounded in time (time-outs on every handle, and
// the whole download abandoned after kDownloadBoundMs) and in size (kMaxDocumentBytes).
Download DownloadDocument(const std::wstring& address, const wchar_t* agent);

// 1 when the network list manager reports internet connectivity, or cannot be asked.
int CheckInternetConnection();

// Downloads "restorekite.ini" from the download server into policy. E_FAIL when there is no
// connection (nothing is attempted); S_OK when downloaded; 0x800C0008 when the download failed
// or timed out; E_OUTOFMEMORY when the document is larger than kMaxDocumentBytes.
HRESULT SendRequestAndGetResponse(std::string& policy);

// The value of key in section of an INI text as the profile API reads it: section and key
// compared without regard to case, blanks around the value trimmed, the first match wins; ""
// when absent.
std::string ProfileString(const std::string& iniText, const char* section, const char* key);

}  // namespace kite
