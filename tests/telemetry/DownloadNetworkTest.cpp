#include "installer/KiteInstaller.h"
#include "telemetry/TelemetryReporter.h"

#include "support/KiteServers.h"
#include "support/PlatformOverride.h"

#include <regex>
#include <stdexcept>

namespace {

using kite::CKiteInstaller;
using kitetest::Trail;

const std::string kDisconnected =
    "CKiteInstaller:CheckInternetConnection  no internet connection, con has "
    "NLM_CONNECTIVITY_DISCONNECTED";
const std::string kLocalOnly =
    "CKiteInstaller:CheckInternetConnection  no internet connection, con has value other than "
    "NLM_CONNECTIVITY_IPV4_INTERNET and NLM_CONNECTIVITY_IPV6_INTERNET";
const std::string kDownload = "CKiteInstaller::SendRequestAndGetResponse ";

// The network list manager's answer while a row runs.
NLM_CONNECTIVITY connectivity;
HRESULT AnswerConnectivity(INetworkListManager*, NLM_CONNECTIVITY* answer) {
    *answer = connectivity;
    return S_OK;
}

// The last error read after an exception is whatever the unwinding (COM's release and
// uninitialisation) left; only its decimal form is fixed.
std::string MaskLastError(const std::string& text) {
    static const std::regex lastError("GetLastError: :  [0-9]+");
    return std::regex_replace(text, lastError, "GetLastError: :  <n>");
}

using Arrange = void (*)(kite::PlatformCalls& calls, kitetest::KiteServers& servers);

class DownloadNetworkTest : public kitetest::LogTest {
  public:
    DownloadNetworkTest() {
        servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
        kite::TelemetryReporter::Instance() = kite::TelemetryReporter();
        kite::TelemetryReporter::Instance().LoadConfiguration();
    }

    // Runs one row on a fresh log and collector, with the platform answers it arranges.
    template <typename Call>
    auto Run(Arrange arrange, Call call) {
        kitetest::RemoveTree(DataFolder() + "\\twupdate\\log");
        kitetest::CreateFolders(DataFolder() + "\\twupdate\\log");
        servers_.Clear();
        servers_.restoreServer_.SetString(servers_.restore);
        kitetest::PlatformOverride platform;
        if (arrange != nullptr) arrange(platform.calls(), servers_);
        return call();
    }

    // The error events that reached the collector hold exactly these messages.
    void ExpectEvents(const std::string& message, const std::string& what) {
        const auto events = servers_.Requests("collector");
        ASSERT_EQ(events.size(), message.empty() ? 0u : 1u) << what;
        if (message.empty()) return;
        EXPECT_NE(events[0].body.find("messagetype=\"Error\""), std::string::npos) << what;
        EXPECT_NE(
            MaskLastError(events[0].body).find("& ErrorMessage=\"" + message + "\"& SlipStream="),
            std::string::npos)
            << what << "\n"
            << events[0].body;
    }

    kitetest::KiteServers servers_;
};

TEST_F(DownloadNetworkTest, ConnectivityVerdictsAreLoggedAndReported) {
    struct Row {
        const char* what;
        Arrange arrange;
        int connected;
        std::string message;
    };
    const Row rows[] = {
        {"this machine's own answer", nullptr, 1, ""},
        {"no network list manager",
         [](kite::PlatformCalls& calls, kitetest::KiteServers&) {
             calls.CoCreateInstance = [](REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*) -> HRESULT {
                 return REGDB_E_CLASSNOTREG;
             };
         },
         1, ""},
        {"connectivity cannot be read",
         [](kite::PlatformCalls& calls, kitetest::KiteServers&) {
             calls.GetConnectivity = [](INetworkListManager*, NLM_CONNECTIVITY*) -> HRESULT {
                 return E_FAIL;
             };
         },
         1, ""},
        {"IPv4 internet",
         [](kite::PlatformCalls& calls, kitetest::KiteServers&) {
             connectivity = NLM_CONNECTIVITY_IPV4_INTERNET;
             calls.GetConnectivity = AnswerConnectivity;
         },
         1, ""},
        {"IPv6 internet",
         [](kite::PlatformCalls& calls, kitetest::KiteServers&) {
             connectivity = NLM_CONNECTIVITY_IPV6_INTERNET;
             calls.GetConnectivity = AnswerConnectivity;
         },
         1, ""},
        {"local network only",
         [](kite::PlatformCalls& calls, kitetest::KiteServers&) {
             connectivity = static_cast<NLM_CONNECTIVITY>(NLM_CONNECTIVITY_IPV4_LOCALNETWORK |
                                                          NLM_CONNECTIVITY_IPV6_NOTRAFFIC);
             calls.GetConnectivity = AnswerConnectivity;
         },
         0, kLocalOnly},
        {"disconnected",
         [](kite::PlatformCalls& calls, kitetest::KiteServers&) {
             connectivity = NLM_CONNECTIVITY_DISCONNECTED;
             calls.GetConnectivity = AnswerConnectivity;
         },
         0, kDisconnected},
        {"an exception on the way",
         [](kite::PlatformCalls& calls, kitetest::KiteServers&) {
             calls.GetConnectivity = [](INetworkListManager*, NLM_CONNECTIVITY*) -> HRESULT {
                 throw std::runtime_error("fault");
             };
         },
         1, "CKiteInstaller:CheckInternetConnection  got an exception with GetLastError: :  <n>"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(Run(row.arrange, [] { return CKiteInstaller::CheckInternetConnection(); }),
                  row.connected)
            << row.what;
        EXPECT_EQ(MaskLastError(ReadMaskedLog()),
                  Trail("CKiteInstaller::CheckInternetConnection",
                        row.message.empty() ? "" : row.message + "\r\n"))
            << row.what;
        ExpectEvents(row.message, row.what);
    }
}

TEST_F(DownloadNetworkTest, DownloadOutcomesAreLoggedAndReported) {
    const std::string ini = "[Restore]\r\nTakeBackup=1\r\n";
    struct Row {
        const char* what;
        Arrange arrange;
        HRESULT result;
        std::string message;
        const char* stored;  // the destination's content afterwards; null: no file
    };
    const Row rows[] = {
        {"served",
         [](kite::PlatformCalls&, kitetest::KiteServers& servers) {
             servers.ServeRestoreFile("[Restore]\r\nTakeBackup=1\r\n");
         },
         S_OK, kDownload + "Successfully downloaded the ini with GetLastError:  0", ini.c_str()},
        // The platform stores the server's error page and calls it a success.
        {"not on the server (404)", nullptr, S_OK,
         kDownload + "Successfully downloaded the ini with GetLastError:  0", "not found"},
        {"server refuses the connection",
         [](kite::PlatformCalls&, kitetest::KiteServers& servers) {
             servers.restoreServer_.SetString("127.0.0.1:1");
         },
         static_cast<HRESULT>(0x800C0008), kDownload + "URL is invalid with GetLastError :  0",
         nullptr},
        {"an address the platform refuses",
         [](kite::PlatformCalls&, kitetest::KiteServers& servers) {
             servers.restoreServer_.SetString("127.0.0.1:99999");
         },
         E_INVALIDARG, kDownload + "Failed with unknown error with GetLastError :  0", nullptr},
        {"out of memory",
         [](kite::PlatformCalls& calls, kitetest::KiteServers&) {
             calls.URLDownloadToFileA = [](LPUNKNOWN, LPCSTR, LPCSTR, DWORD,
                                           LPBINDSTATUSCALLBACK) -> HRESULT {
                 ::SetLastError(8);
                 return E_OUTOFMEMORY;
             };
         },
         E_OUTOFMEMORY,
         kDownload + "Buffer length invalid, or insufficient memory with GetLastError :  8",
         nullptr},
        // The restore server would answer; it gets no request at all.
        {"offline",
         [](kite::PlatformCalls& calls, kitetest::KiteServers& servers) {
             servers.ServeRestoreFile("[Restore]\r\n");
             connectivity = NLM_CONNECTIVITY_DISCONNECTED;
             calls.GetConnectivity = AnswerConnectivity;
         },
         E_FAIL, kDisconnected, nullptr},
    };
    for (const Row& row : rows) {
        kitetest::TempFolder target("restore");
        const std::string destination = target / "restorekite.ini";
        EXPECT_EQ(
            Run(row.arrange,
                [&] { return CKiteInstaller::SendRequestAndGetResponse(destination.c_str()); }),
            row.result)
            << row.what;
        const bool offline = row.result == E_FAIL;
        EXPECT_EQ(ReadMaskedLog(), Trail("CKiteInstaller::SendRequestAndGetResponse",
                                         "Entered into SendRequestAndGetResponse\r\n" +
                                             Trail("CKiteInstaller::CheckInternetConnection",
                                                   offline ? row.message + "\r\n" : "") +
                                             (offline ? "" : row.message + "\r\n") +
                                             "Exited from SendRequestAndGetResponse\r\n"))
            << row.what;
        ExpectEvents(row.message, row.what);
        EXPECT_EQ(kitetest::Exists(destination), row.stored != nullptr) << row.what;
        if (offline) {
            EXPECT_EQ(servers_.Connections("restore"), 0);
        }
        if (row.stored == nullptr) continue;
        EXPECT_EQ(kitetest::ReadFileBytes(destination), row.stored) << row.what;
        const auto requests = servers_.Requests("restore");
        ASSERT_EQ(requests.size(), 1u) << row.what;
        EXPECT_EQ(requests[0].head.substr(0, requests[0].head.find("\r\n")),
                  "GET /http.tolvix/kite/restorekite.ini HTTP/1.1");
    }
}

}  // namespace
