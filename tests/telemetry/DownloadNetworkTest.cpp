#include "installer/KiteInstaller.h"
#include "telemetry/TelemetryReporter.h"

#include "support/Telemetry.h"
#include "support/PlatformOverride.h"

#include <regex>
#include <stdexcept>

namespace {

using kite::CKiteInstaller;
using kitetest::Trail;

const std::string kDisconnected =
    "CKiteInstaller:CheckInternetConnection  no internet connection, con has "
    "NLM_CONNECTIVITY_DISCONNECTED";
const std::string kDownload = "CKiteInstaller::SendRequestAndGetResponse ";

// What the platform answers while a row runs; by default its own answers.
struct Answers {
    HRESULT create = S_OK;    // a failure replaces CoCreateInstance's answer
    HRESULT read = S_OK;      // a failure replaces GetConnectivity's; E_UNEXPECTED throws
    int connectivity = -1;    // -1: the platform's own
    HRESULT download = S_OK;  // a failure replaces URLDownloadToFileA's
} answers;

HRESULT WINAPI CreateManager(REFCLSID id, LPUNKNOWN outer, DWORD context, REFIID iid, LPVOID* out) {
    return FAILED(answers.create) ? answers.create
                                  : ::CoCreateInstance(id, outer, context, iid, out);
}

HRESULT ReadConnectivity(INetworkListManager* manager, NLM_CONNECTIVITY* connectivity) {
    if (answers.read == E_UNEXPECTED) throw std::runtime_error("fault");
    if (FAILED(answers.read)) return answers.read;
    if (answers.connectivity < 0) return manager->GetConnectivity(connectivity);
    *connectivity = static_cast<NLM_CONNECTIVITY>(answers.connectivity);
    return S_OK;
}

HRESULT WINAPI Download(LPUNKNOWN caller, LPCSTR address, LPCSTR file, DWORD reserved,
                        LPBINDSTATUSCALLBACK callback) {
    if (FAILED(answers.download)) {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return answers.download;
    }
    return ::URLDownloadToFileA(caller, address, file, reserved, callback);
}

// The last error read after an exception is whatever the unwinding (COM's release and
// uninitialisation) left; only its decimal form is fixed.
std::string MaskLastError(const std::string& text) {
    static const std::regex lastError("GetLastError: :  [0-9]+");
    return std::regex_replace(text, lastError, "GetLastError: :  <n>");
}

class DownloadNetworkTest : public kitetest::LogTest {
  public:
    DownloadNetworkTest() {
        servers_.ServeConfiguration(kitetest::CollectorConfiguration(servers_.collector));
        kitetest::ReloadTelemetry();
        platform_.calls().CoCreateInstance = CreateManager;
        platform_.calls().GetConnectivity = ReadConnectivity;
        platform_.calls().URLDownloadToFileA = Download;
    }

    // A fresh log and collector for one row.
    void Begin(const Answers& rowAnswers) {
        answers = rowAnswers;
        kitetest::RemoveTree(DataFolder() + "\\twupdate\\log");
        kitetest::CreateFolders(DataFolder() + "\\twupdate\\log");
        servers_.Clear();
    }

    // One error event with the message reached the collector, or none when it is empty.
    void ExpectEvent(const std::string& message, const std::string& what) {
        const auto events = servers_.Requests("collector");
        ASSERT_EQ(events.size(), message.empty() ? 0u : 1u) << what;
        if (message.empty()) return;
        const std::string body = MaskLastError(events[0].body);
        EXPECT_NE(body.find("messagetype=\"Error\"&token=LED-TOKEN&"), std::string::npos) << what;
        EXPECT_NE(body.find("& ErrorMessage=\"" + message + "\"& SlipStream="), std::string::npos)
            << what << "\n"
            << body;
    }

    kitetest::PlatformOverride platform_;
    kitetest::KiteServers servers_;
};

TEST_F(DownloadNetworkTest, ConnectivityVerdictsAreLoggedAndReported) {
    struct Row {
        const char* what;
        Answers answers;
        int connected;
        std::string message;
    };
    const Row rows[] = {
        {"this machine's own answer", {}, 1, ""},
        {"no network list manager", {REGDB_E_CLASSNOTREG}, 1, ""},
        {"connectivity cannot be read", {S_OK, E_FAIL}, 1, ""},
        {"IPv4 internet", {S_OK, S_OK, NLM_CONNECTIVITY_IPV4_INTERNET}, 1, ""},
        {"IPv6 internet", {S_OK, S_OK, NLM_CONNECTIVITY_IPV6_INTERNET}, 1, ""},
        {"local network only",
         {S_OK, S_OK, NLM_CONNECTIVITY_IPV4_LOCALNETWORK | NLM_CONNECTIVITY_IPV6_NOTRAFFIC},
         0,
         "CKiteInstaller:CheckInternetConnection  no internet connection, con has value other "
         "than NLM_CONNECTIVITY_IPV4_INTERNET and NLM_CONNECTIVITY_IPV6_INTERNET"},
        {"disconnected", {S_OK, S_OK, NLM_CONNECTIVITY_DISCONNECTED}, 0, kDisconnected},
        {"an exception on the way",
         {S_OK, E_UNEXPECTED},
         1,
         "CKiteInstaller:CheckInternetConnection  got an exception with GetLastError: :  <n>"},
    };
    for (const Row& row : rows) {
        Begin(row.answers);
        EXPECT_EQ(CKiteInstaller::CheckInternetConnection(), row.connected) << row.what;
        EXPECT_EQ(MaskLastError(ReadMaskedLog()),
                  Trail("CKiteInstaller::CheckInternetConnection",
                        row.message.empty() ? "" : row.message + "\r\n"))
            << row.what;
        ExpectEvent(row.message, row.what);
    }
}

TEST_F(DownloadNetworkTest, DownloadOutcomesAreLoggedAndReported) {
    const std::string success = kDownload + "Successfully downloaded the ini with GetLastError:  0";
    struct Row {
        const char* what;
        const char* authority;  // null: the restore server
        const char* served;     // null: 404
        Answers answers;
        HRESULT result;
        std::string message;
        const char* stored;  // the destination's content afterwards; null: no file
    };
    const Row rows[] = {
        {"served", nullptr, "[Restore]\r\n", {}, S_OK, success, "[Restore]\r\n"},
        // The platform stores the server's error page and calls it a success.
        {"not on the server (404)", nullptr, nullptr, {}, S_OK, success, "not found"},
        {"the server refuses",
         "127.0.0.1:1",
         nullptr,
         {},
         static_cast<HRESULT>(0x800C0008),
         kDownload + "URL is invalid with GetLastError :  0",
         nullptr},
        {"an address the platform refuses",
         "127.0.0.1:99999",
         nullptr,
         {},
         E_INVALIDARG,
         kDownload + "Failed with unknown error with GetLastError :  0",
         nullptr},
        {"out of memory",
         nullptr,
         nullptr,
         {S_OK, S_OK, -1, E_OUTOFMEMORY},
         E_OUTOFMEMORY,
         kDownload + "Buffer length invalid, or insufficient memory with GetLastError :  8",
         nullptr},
        // The restore server would answer; it gets no request at all.
        {"offline",
         nullptr,
         "[Restore]\r\n",
         {S_OK, S_OK, NLM_CONNECTIVITY_DISCONNECTED},
         E_FAIL,
         kDisconnected,
         nullptr},
    };
    for (const Row& row : rows) {
        Begin(row.answers);
        servers_.restoreServer_.SetString(row.authority ? row.authority : servers_.restore);
        if (row.served != nullptr) servers_.ServeRestoreFile(row.served);
        kitetest::TempFolder target("restore");
        const std::string destination = target / "restorekite.ini";

        EXPECT_EQ(CKiteInstaller::SendRequestAndGetResponse(destination.c_str()), row.result)
            << row.what;
        const bool offline = row.result == E_FAIL;
        EXPECT_EQ(ReadMaskedLog(), Trail("CKiteInstaller::SendRequestAndGetResponse",
                                         "Entered into SendRequestAndGetResponse\r\n" +
                                             Trail("CKiteInstaller::CheckInternetConnection",
                                                   offline ? row.message + "\r\n" : "") +
                                             (offline ? "" : row.message + "\r\n") +
                                             "Exited from SendRequestAndGetResponse\r\n"))
            << row.what;
        ExpectEvent(row.message, row.what);
        EXPECT_EQ(kitetest::ReadFileBytes(destination), row.stored ? row.stored : "") << row.what;
        EXPECT_EQ(kitetest::Exists(destination), row.stored != nullptr) << row.what;
        const auto requests = servers_.Requests("restore");
        EXPECT_EQ(requests.size(), row.stored ? 1u : 0u) << row.what;
        if (!requests.empty()) {
            EXPECT_EQ(requests[0].head.substr(0, requests[0].head.find("\r\n")),
                      "GET /http.tolvix/kite/restorekite.ini HTTP/1.1");
        }
    }
}

}  // namespace
