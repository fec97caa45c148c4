#include "registration/ComServer.h"

#include "registration/RegistrationFixtures.h"
#include "support/LogLines.h"
#include "support/PlatformOverride.h"

#include <regex>
#include <typeinfo>

namespace {

using kitetest::Lines;
using kitetest::LinesOfScope;

// The entry's address is printed in the stream's pointer form; only its presence matters here.
Lines WithoutAddresses(Lines lines) {
    static const std::regex address(R"((DllRegisterServer|DllUnregisterServer) : \S+)");
    for (std::string& line : lines) line = std::regex_replace(line, address, "$1 : <address>");
    return lines;
}

class ComServerTest : public kitetest::RegistrationTest {
  public:
    static std::string KindOf(const kite::IComServer& server) {
        if (dynamic_cast<const kite::CInProc32Server*>(&server)) return "CInProc32Server";
        if (dynamic_cast<const kite::CInProcServer*>(&server)) return "CInProcServer";
        if (dynamic_cast<const kite::COutProcServer*>(&server)) return "COutProcServer";
        if (dynamic_cast<const kite::CDotNetAssembly*>(&server)) return "CDotNetAssembly";
        return "unknown";
    }
};

// Wine's regsvr32 registers the server, which writes its key; the DLL is never loaded into this
// process. Unregistering removes the key again.
TEST_F(ComServerTest, InProcServerRegistersThroughRegsvr32) {
    kite::CInProcServer server;
    server.path = Fixture("kitecom_ok.dll", "ok server.dll");
    EXPECT_EQ(server.Register(), 0);
    EXPECT_TRUE(Registered("ok server.dll"));
    EXPECT_EQ(server.Unregister(), 0);
    EXPECT_FALSE(Registered("ok server.dll"));

    const std::string log = ReadMaskedLog();
    EXPECT_EQ(LinesOfScope(log, "LaunchAndWait").at(0).at(0),
              "\"regsvr32.exe\" /s \"" + server.path + "\"");
    EXPECT_EQ(LinesOfScope(log, "LaunchAndWait").at(1).at(0),
              "\"regsvr32.exe\" /s /u \"" + server.path + "\"");
    EXPECT_TRUE(LinesOfScope(log, "CInProcServer::_Register").empty());
    EXPECT_EQ(::GetModuleHandleA(server.path.c_str()), nullptr);
}

// When regsvr32 reports failure the server is loaded into this process, and that attempt's
// status is the answer.
TEST_F(ComServerTest, InProcFallbackStatusDecides) {
    struct Row {
        const char* fixture;  // nullptr: a file that is no DLL
        const char* name;
        bool reg;
        HRESULT result;
        Lines lines;
    };
    const Row rows[] = {
        {"kitecom_fail.dll",
         "fail.dll",
         true,
         static_cast<HRESULT>(0x80040201),
         {"DllRegisterServer : <address>", "HRESULT: 80040201"}},
        {"kitecom_noentry.dll",
         "noentry.dll",
         true,
         E_INVALIDARG,
         {"DllRegisterServer : <address>", "HRESULT: 80070057"}},
        {"kitecom_noentry.dll",
         "noentry.dll",
         false,
         E_INVALIDARG,
         {"DllUnregisterServer : <address>", "HRESULT: 80070057"}},
        {nullptr,
         "text.dll",
         true,
         static_cast<HRESULT>(0x800700C1),
         {"Failed to load DLL. GetLastError: 193", "HRESULT: 800700c1"}},
    };
    for (const Row& row : rows) {
        ClearLog();
        kite::CInProcServer server;
        server.path = row.fixture ? Fixture(row.fixture, row.name) : folder_ / row.name;
        if (!row.fixture) kitetest::WriteFileBytes(server.path, "not a library");
        EXPECT_EQ(row.reg ? server.Register() : server.Unregister(), row.result) << row.name;
        Lines expected = {"server: " + server.path + " register: " + (row.reg ? "1" : "0")};
        expected.insert(expected.end(), row.lines.begin(), row.lines.end());
        const std::vector<Lines> fallback =
            LinesOfScope(ReadMaskedLog(), "CInProcServer::_Register");
        ASSERT_EQ(fallback.size(), 1u) << row.name;
        EXPECT_EQ(WithoutAddresses(fallback[0]), expected) << row.name;
    }
}

TEST_F(ComServerTest, InProcessAttemptCountsOnlyZeroAsSuccess) {
    struct Row {
        const char* fixture;
        HRESULT result;
    };
    const Row rows[] = {
        {"kitecom_sfalse.dll", S_FALSE},
        {"kitecom_ok.dll", S_OK},
        // Loads only because the server's folder becomes the DLL directory.
        {"kitecom_dep.dll", S_OK},
    };
    Fixture("kitedep.dll", "kitedep.dll");
    for (const Row& row : rows) {
        kite::CInProcServer server;
        server.path = Fixture(row.fixture, row.fixture);
        EXPECT_EQ(server._Register(true), row.result) << row.fixture;
    }
    EXPECT_TRUE(Registered("kitecom_dep.dll"));

    ClearLog();
    kite::CInProcServer bare;
    bare.path = "kitecom_ok.dll";
    EXPECT_EQ(bare._Register(true), E_FAIL);
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CInProcServer::_Register"),
              (std::vector<Lines>{{"server: kitecom_ok.dll register: 1", "HRESULT: 80004005"}}));
}

TEST_F(ComServerTest, InProc32ServerRunsTheRegsvr32OfThe32BitSystemFolder) {
    const std::string regsvr32 = InstallRecorder("C:\\windows\\syswow64\\regsvr32.exe");
    kite::CInProc32Server server;
    server.path = Fixture("kitecom_ok.dll", "ok32.ocx");
    EXPECT_EQ(server.Register(), 0);
    EXPECT_EQ(server.Unregister(), 0);
    EXPECT_EQ(Calls(regsvr32), "\"" + regsvr32 + "\" /s \"" + server.path + "\"\n\"" + regsvr32 +
                                   "\" /s /u \"" + server.path + "\"\n");
    EXPECT_TRUE(LinesOfScope(ReadMaskedLog(), "CInProc32Server::_Register").empty());

    // The tool fails: the server is loaded here instead (this fixture is 64-bit, so it loads).
    SetExitCode(regsvr32, 5);
    EXPECT_EQ(server.Register(), 0);
    EXPECT_TRUE(Registered("ok32.ocx"));
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CInProc32Server::_Register").size(), 1u);
}

TEST_F(ComServerTest, OutProcServerRegistersItselfAndItsExitCodeIsTheAnswer) {
    kite::COutProcServer server;
    server.path = Fixture("kiterecorder.exe", "Out Proc Server.exe");
    EXPECT_EQ(server.Register(), 0);
    SetExitCode(server.path, 7);
    EXPECT_EQ(server.Unregister(), 7);
    EXPECT_EQ(Calls(server.path),
              "\"" + server.path + "\" /regserver\n\"" + server.path + "\" /unregserver\n");
}

// Counts the calls into the runtime's hosting, passing each on to the real runtime.
class DotNetAssemblyTest : public kitetest::RegistrationTest {
  public:
    static int clrCalls;
    static kite::PlatformCalls real;
    kitetest::PlatformOverride platform_;
    DotNetAssemblyTest() {
        clrCalls = 0;
        real = kite::Platform();
        platform_.calls().CLRCreateInstance = [](REFCLSID clsid, REFIID riid, LPVOID* object) {
            ++clrCalls;
            return real.CLRCreateInstance(clsid, riid, object);
        };
    }
};
int DotNetAssemblyTest::clrCalls = 0;
kite::PlatformCalls DotNetAssemblyTest::real;

TEST_F(DotNetAssemblyTest, RegasmAtTheFrameworkFolderGetsTheAssemblyQuoted) {
    const std::string regasm =
        InstallRecorder("C:\\Windows\\Microsoft.NET\\Framework\\v4.0.30319\\regasm.exe");
    kite::CDotNetAssembly assembly;
    assembly.path = Fixture("KiteManaged.dll", "Kite Managed.dll");
    EXPECT_EQ(assembly.Register(), 0);
    SetExitCode(regasm, 100);
    EXPECT_EQ(assembly.Unregister(), 100);
    EXPECT_EQ(Calls(regasm), "\"" + regasm + "\" \"" + assembly.path + "\" /silent /tlb\n\"" +
                                 regasm + "\" \"" + assembly.path + "\" /silent /unregister\n");
    EXPECT_EQ(clrCalls, 0);
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CDotNetAssembly::_Register").at(1),
              (Lines{"Assembly: " + assembly.path + " register: 0", "regasm: " + regasm}));
}

// Wine's runtime answers the version queries but has no runtime directory, so no regasm is
// found anywhere.
TEST_F(DotNetAssemblyTest, WithoutRegasmTheRuntimeIsAskedForItsFolder) {
    kite::CDotNetAssembly assembly;
    assembly.path = Fixture("KiteManaged.dll", "managed.dll");
    EXPECT_EQ(assembly.Register(), E_FAIL);
    EXPECT_EQ(clrCalls, 1);
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CDotNetAssembly::_Register"),
              (std::vector<Lines>{{"Assembly: " + assembly.path + " register: 1",
                                   "regasm not found at "
                                   "C:\\Windows\\Microsoft.NET\\Framework\\v4.0.30319\\regasm.exe",
                                   "CLRCreateInstance() succeeded", ".NET4 runtime is installed",
                                   "regasm: "}}));
}

TEST_F(ComServerTest, FactoryMapsTypeFlagAndFileToAServerKind) {
    const std::string native = Fixture("kitecom_ok.dll", "native.dll");
    const std::string nativeUpper = Fixture("kitecom_ok.dll", "NATIVE2.DLL");
    const std::string managed = Fixture("KiteManaged.dll", "managed.dll");
    const std::string exe = folder_ / "app.exe";
    const std::string ocx = folder_ / "ctl.OCX";
    const std::string tlb = folder_ / "types.tlb";
    const std::string dotFolder = "C:\\a.b\\file";
    struct Row {
        std::string path;
        unsigned int type;
        bool folderSupport;
        const char* kind;  // "throws" when no kind fits
    };
    const Row rows[] = {
        {native, 0, true, "throws"},
        {native, 1, false, "CInProcServer"},
        {native, 1, true, "CInProcServer"},
        {nativeUpper, 1, false, "CInProcServer"},
        {managed, 1, false, "CDotNetAssembly"},
        {managed, 1, true, "CDotNetAssembly"},
        {exe, 1, false, "COutProcServer"},
        {ocx, 1, false, "CInProcServer"},
        {tlb, 1, false, "throws"},
        {dotFolder, 1, false, "throws"},
        {"C:\\nodot\\file", 1, true, "throws"},
        {tlb, 2, false, "CInProcServer"},
        {tlb, 3, false, "COutProcServer"},
        {native, 4, false, "CDotNetAssembly"},
        {native, 5, false, "throws"},
        {native, 5, true, "CInProc32Server"},
        {managed, 5, true, "CDotNetAssembly"},
        {exe, 5, true, "COutProcServer"},
        {ocx, 5, true, "CInProc32Server"},
        {tlb, 5, true, "throws"},
        {native, 6, false, "throws"},
        {native, 6, true, "CInProc32Server"},
        {native, 7, true, "throws"},
    };
    for (const Row& row : rows) {
        const std::string what = row.path + " type " + std::to_string(row.type) +
                                 (row.folderSupport ? " with" : " without") + " folder support";
        if (std::string(row.kind) == "throws") {
            try {
                kite::CreateComServer(row.path, row.type, row.folderSupport);
                ADD_FAILURE() << what << ": no exception";
            } catch (const std::exception& error) {
                EXPECT_STREQ(error.what(), "Not a valid COM server") << what;
            }
            continue;
        }
        const std::unique_ptr<kite::IComServer> server =
            kite::CreateComServer(row.path, row.type, row.folderSupport);
        EXPECT_EQ(KindOf(*server), row.kind) << what;
        EXPECT_EQ(server->path, row.path) << what;
    }
}

}  // namespace
