// The installer's only contact with the network outside telemetry: whether the machine is online,
// and the download of the restore policy "restorekite.ini". Every outcome goes to the update log
// and, as an error event, to telemetry.
#include "telemetry/Download.h"

#include "common/Handles.h"
#include "common/Platform.h"
#include "installer/KiteInstaller.h"
#include "log/ScopeLog.h"
#include "telemetry/DownloadServer.h"
#include "telemetry/TelemetryReporter.h"

namespace kite {

namespace {

const CLSID kNetworkListManager = {
    0xDCB00C01, 0x570F, 0x4A9B, {0x8D, 0x69, 0x19, 0x9F, 0xDB, 0xA5, 0x72, 0x3B}};
const IID kINetworkListManager = {
    0xDCB00000, 0x570F, 0x4A9B, {0x8D, 0x69, 0x19, 0x9F, 0xDB, 0xA5, 0x72, 0x3B}};

void LogAndReport(ScopeLog& log, const std::string& message) {
    log << message << std::endl;
    TelemetryReporter::Instance().ReportEvent(0, message.c_str(), true);
}

// For the exception handlers: a failing report must not raise a second time.
void LogAndReportQuietly(ScopeLog& log, const std::string& message) {
    try {
        LogAndReport(log, message);
    } catch (...) {
    }
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

// A machine whose connectivity cannot be asked counts as connected: the download is tried and
// its own result decides.
int CKiteInstaller::CheckInternetConnection() {
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
        LogAndReportQuietly(log,
                            "CKiteInstaller:CheckInternetConnection  got an exception with "
                            "GetLastError: :  " +
                                std::to_string(lastError));
    }
    return connected;
}

HRESULT CKiteInstaller::SendRequestAndGetResponse(const char* destination) {
    ScopeLog log("CKiteInstaller::SendRequestAndGetResponse");
    HRESULT result = E_FAIL;
    try {
        log << "Entered into SendRequestAndGetResponse" << std::endl;
        if (destination == nullptr) {
            log << "Invalid argument: destination is null" << std::endl;
            result = E_INVALIDARG;
        } else if (CheckInternetConnection() != 0) {
            const std::string address =
                RestoreFileAddress(ReadDownloadServer(kRestoreServerValue).authority);
            // Cleared first, so that the value read after the download is the download's own.
            ::SetLastError(ERROR_SUCCESS);
            result =
                Platform().URLDownloadToFileA(nullptr, address.c_str(), destination, 0, nullptr);
            const DWORD lastError = ::GetLastError();
            LogAndReport(log, DownloadResultText(result) + std::to_string(lastError));
        }
    } catch (...) {
        log << "CKiteInstaller::SendRequestAndGetResponse got an exception" << std::endl;
    }
    log << "Exited from SendRequestAndGetResponse" << std::endl;
    return result;
}

}  // namespace kite
