// Every outcome of the connectivity check and of the restore policy's download goes to the update
// log and, as an error event, to telemetry.
#include "telemetry/Download.h"

#include "common/Handles.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "log/ScopeLog.h"
#include "telemetry/DownloadServer.h"
#include "telemetry/NetworkWorker.h"
#include "telemetry/TelemetryReporter.h"

#include <cstring>
#include <memory>

namespace kite {

namespace {

const CLSID kNetworkListManager = {
    0xDCB00C01, 0x570F, 0x4A9B, {0x8D, 0x69, 0x19, 0x9F, 0xDB, 0xA5, 0x72, 0x3B}};
const IID kINetworkListManager = {
    0xDCB00000, 0x570F, 0x4A9B, {0x8D, 0x69, 0x19, 0x9F, 0xDB, 0xA5, 0x72, 0x3B}};

constexpr DWORD kChunkBytes = 2000;
constexpr HRESULT kDownloadFailure = static_cast<HRESULT>(0x800C0008UL);

void LogAndReport(ScopeLog& log, const std::string& message) {
    log << message << std::endl;
    TelemetryReporter::Instance().ReportEvent(0, message.c_str(), true);
}

// Runs on a download thread: everything it writes belongs to the shared result.
void FetchInto(const std::wstring& address, const std::wstring& agent, Download& result) {
    UniqueInternet root(
        Platform().InternetOpenW(agent.c_str(), INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
    if (!root) return void(result.lastError = ::GetLastError());
    SetNetworkTimeouts(root.get(), true);
    UniqueInternet url(
        Platform().InternetOpenUrlW(root.get(), address.c_str(), nullptr, 0,
                                    INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE, 0));
    if (!url) return void(result.lastError = ::GetLastError());
    SetNetworkTimeouts(url.get(), false);
    char chunk[kChunkBytes + 1];
    DWORD read = 0;
    do {
        std::memset(chunk, 0, sizeof chunk);
        read = 0;
        // A failing read reports 0 bytes and ends the document as its end would.
        Platform().InternetReadFile(url.get(), chunk, kChunkBytes, &read);
        result.text.append(chunk);
        if (result.text.size() > kMaxDocumentBytes) {
            result.text.clear();
            result.outcome = DownloadOutcome::kTooLarge;
            return;
        }
    } while (read > 0);
    result.lastError = ERROR_SUCCESS;
    result.outcome = DownloadOutcome::kDownloaded;
}

HRESULT DownloadStatus(DownloadOutcome outcome) {
    switch (outcome) {
        case DownloadOutcome::kDownloaded:
            return S_OK;
        case DownloadOutcome::kTooLarge:
            return E_OUTOFMEMORY;
        default:
            return kDownloadFailure;
    }
}

std::string TrimBlanks(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

ConnectivityVerdict JudgeConnectivity(NLM_CONNECTIVITY connectivity) {
    if (connectivity == NLM_CONNECTIVITY_DISCONNECTED) {
        return {0,
                "CKiteInstaller:CheckInternetConnection  no internet connection, con has "
                "NLM_CONNECTIVITY_DISCONNECTED"};
    }
    if (connectivity & (NLM_CONNECTIVITY_IPV4_INTERNET | NLM_CONNECTIVITY_IPV6_INTERNET)) {
        return {1, nullptr};
    }
    return {0,
            "CKiteInstaller:CheckInternetConnection  no internet connection, con has value other "
            "than NLM_CONNECTIVITY_IPV4_INTERNET and NLM_CONNECTIVITY_IPV6_INTERNET"};
}

const char* DownloadResultText(HRESULT result) {
    switch (static_cast<unsigned long>(result)) {
        case S_OK:
            return "CKiteInstaller::SendRequestAndGetResponse Successfully downloaded the ini with "
                   "GetLastError:  ";
        case 0x8007000EUL:
            return "CKiteInstaller::SendRequestAndGetResponse Buffer length invalid, or "
                   "insufficient memory with GetLastError :  ";
        // The generic download failure; the text has always spoken of an invalid address.
        case 0x800C0008UL:
            return "CKiteInstaller::SendRequestAndGetResponse URL is invalid with GetLastError :  ";
        default:
            return "CKiteInstaller::SendRequestAndGetResponse Failed with unknown error with "
                   "GetLastError :  ";
    }
}

Download DownloadDocument(const std::wstring& address, const wchar_t* agent) {
    auto shared = std::make_shared<Download>();
    const std::wstring agentName = agent == nullptr ? L"" : agent;
    const bool finished = RunBounded(
        [shared, address, agentName] { FetchInto(address, agentName, *shared); }, kDownloadBoundMs);
    if (!finished) {
        Download late;
        late.lastError = ERROR_INTERNET_TIMEOUT;
        return late;
    }
    return *shared;
}

// A machine whose connectivity cannot be asked counts as connected: the download is tried and
// its own result decides.
int CheckInternetConnection() {
    ScopeLog log("CKiteInstaller::CheckInternetConnection");
    int connected = 1;
    try {
        ComApartment apartment;
        ComPtr<INetworkListManager> manager;
        NLM_CONNECTIVITY connectivity = NLM_CONNECTIVITY_DISCONNECTED;
        if (SUCCEEDED(Platform().CoCreateInstance(kNetworkListManager, nullptr, CLSCTX_ALL,
                                                  kINetworkListManager, manager.put_void())) &&
            SUCCEEDED(Platform().GetConnectivity(manager.get(), &connectivity))) {
            const ConnectivityVerdict verdict = JudgeConnectivity(connectivity);
            connected = verdict.connected;
            if (verdict.message != nullptr) LogAndReport(log, verdict.message);
        }
    } catch (...) {
        const DWORD lastError = ::GetLastError();
        LogAndReport(log,
                     "CKiteInstaller:CheckInternetConnection  got an exception with "
                     "GetLastError: :  " +
                         std::to_string(lastError));
    }
    return connected;
}

// The download lands in memory only: the policy used to be written to the user's roaming folder,
// where a link that the user planted would have turned the administrator's write elsewhere. The
// results keep the codes that the log texts are keyed by: S_OK downloaded, 0x800C0008 failed or
// timed out, E_OUTOFMEMORY larger than kMaxDocumentBytes (counted as no document).
HRESULT SendRequestAndGetResponse(std::string& policy) {
    ScopeLog log("CKiteInstaller::SendRequestAndGetResponse");
    HRESULT result = E_FAIL;
    policy.clear();
    try {
        log << "Entered into SendRequestAndGetResponse" << std::endl;
        if (CheckInternetConnection() != 0) {
            const std::string address =
                RestoreFileAddress(ReadDownloadServer(kRestoreServerValue).authority);
            Download download = DownloadDocument(WidenText(address), L"MyAgent");
            result = DownloadStatus(download.outcome);
            if (result == S_OK) policy = std::move(download.text);
            LogAndReport(log, DownloadResultText(result) + std::to_string(download.lastError));
        }
    } catch (...) {
        log << "CKiteInstaller::SendRequestAndGetResponse got an exception" << std::endl;
    }
    log << "Exited from SendRequestAndGetResponse" << std::endl;
    return result;
}

std::string ProfileString(const std::string& iniText, const char* section, const char* key) {
    bool inSection = false;
    std::size_t start = 0;
    while (start < iniText.size()) {
        std::size_t end = iniText.find('\n', start);
        if (end == std::string::npos) end = iniText.size();
        const std::string line = TrimBlanks(iniText.substr(start, end - start));
        start = end + 1;
        if (!line.empty() && line[0] == '[') {
            const std::size_t close = line.find(']');
            const std::string name = TrimBlanks(
                line.substr(1, close == std::string::npos ? std::string::npos : close - 1));
            inSection = _stricmp(name.c_str(), section) == 0;
            continue;
        }
        const std::size_t equals = line.find('=');
        if (!inSection || equals == std::string::npos) continue;
        if (_stricmp(TrimBlanks(line.substr(0, equals)).c_str(), key) == 0) {
            return TrimBlanks(line.substr(equals + 1));
        }
    }
    return std::string();
}

}  // namespace kite
