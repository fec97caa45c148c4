#include "registration/ComServer.h"

#include "registration/RegistrationFixtures.h"
#include "support/LogLines.h"

#include <typeinfo>

namespace {

using kitetest::LinesOfScope;
using kitetest::Quote;

class ComServerTest : public kitetest::RegistrationTest {};

// The in-process attempt answers its entry's status, S_OK alone counting, and hands the host its
// own DLL directory (or none) back.
TEST_F(ComServerTest, InProcessAttemptAnswersTheEntryAndRestoresTheDllDirectory) {
    struct Row {
        const char* fixture;  // "text": a file that is no library; "bare": a path without folder
        bool reg;
        HRESULT result;
        const char* hex;
        const char* line;
        const char* hostDirectory;  // "": none
    };
    const Row rows[] = {
        {"kitecom_sfalse.dll", true, S_FALSE, "1", "DllRegisterServer : ", "C:\\windows"},
        {"kitecom_noentry.dll", false, E_INVALIDARG, "80070057", "DllUnregisterServer : ", ""},
        // Loads only because the server's folder is the DLL directory meanwhile.
        {"kitecom_dep.dll", true, S_OK, "0", "DllRegisterServer : ", ""},
        {"text", true, HRESULT(0x800700C1), "800700c1", "Failed to load DLL. GetLastError: 193",
         "C:\\"},
        {"bare", true, E_FAIL, "80004005", "HRESULT: 80004005", ""},
    };
    Fixture("kitedep.dll", "kitedep.dll");
    for (const Row& row : rows) {
        ClearLog();
        ::SetDllDirectoryA(*row.hostDirectory ? row.hostDirectory : nullptr);
        kite::CInProcServer server;
        const std::string fixture = row.fixture;
        server.path = fixture == "bare"   ? "kitecom_ok.dll"
                      : fixture == "text" ? folder_ / "text.dll"
                                          : Fixture(fixture, fixture);
        if (fixture == "text") kitetest::WriteFileBytes(server.path, "no library");
        EXPECT_EQ(server.RegisterInProcess(row.reg), row.result) << row.fixture;
        const auto lines = LinesOfScope(ReadMaskedLog(), "CInProcServer::_Register").at(0);
        EXPECT_EQ(lines.front(), "server: " + server.path + " register: " + (row.reg ? "1" : "0"));
        EXPECT_EQ(lines.at(1).rfind(row.line, 0), 0u) << row.fixture;
        EXPECT_EQ(lines.back(), std::string("HRESULT: ") + row.hex) << row.fixture;
        char directory[MAX_PATH] = {};
        EXPECT_EQ(std::string(directory, ::GetDllDirectoryA(MAX_PATH, directory)),
                  row.hostDirectory);
    }
    ::SetDllDirectoryA(nullptr);
}

// The system folder's regsvr32 registers the server without loading it here; when it fails, the
// in-process attempt's status, not regsvr32's exit code, is the answer.
TEST_F(ComServerTest, InProcServerRunsTheSystemRegsvr32ThenFallsBack) {
    char system[MAX_PATH] = {};
    const std::string regsvr32 =
        std::string(system, ::GetSystemDirectoryA(system, MAX_PATH)) + "\\regsvr32.exe";
    kite::CInProcServer server, failing;
    server.path = Fixture("kitecom_ok.dll", "ok server.dll");
    failing.path = Fixture("kitecom_fail.dll", "fail.dll");
    EXPECT_EQ(server.Register(), S_OK);
    EXPECT_TRUE(Registered("ok server.dll"));
    EXPECT_EQ(server.Unregister(), S_OK);
    EXPECT_FALSE(Registered("ok server.dll"));
    EXPECT_TRUE(LinesOfScope(ReadMaskedLog(), "CInProcServer::_Register").empty());
    EXPECT_EQ(failing.Register(), HRESULT(0x80040201));
    const auto launched = LinesOfScope(ReadMaskedLog(), "LaunchAndWait");
    EXPECT_EQ(launched.at(0).at(0), Quote(regsvr32) + " /s " + Quote(server.path));
    EXPECT_EQ(launched.at(1).at(0), Quote(regsvr32) + " /s /u " + Quote(server.path));
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CInProcServer::_Register").size(), 1u);
}

// Each tool gets its own command line; a failing 32-bit regsvr32 is followed by the in-process
// attempt, the other tools' exit codes are the answer.
TEST_F(ComServerTest, ToolsGetTheirCommandLinesAndTheirFailuresAnswer) {
    kite::CInProc32Server inProc32;
    inProc32.path = Fixture("kitecom_ok.dll", "ok32.ocx");
    kite::COutProcServer outProc;
    outProc.path = InstallRecorder(folder_ / "Out Proc Server.exe");
    kite::CDotNetAssembly assembly;
    assembly.path = Fixture("KiteManaged.dll", "Kite Managed.dll");
    struct Row {
        kite::IComServer& server;
        std::string tool, reg, unreg;
        HRESULT failed;
    };
    const Row rows[] = {
        {inProc32, InstallRecorder("C:\\windows\\syswow64\\regsvr32.exe"),
         "/s " + Quote(inProc32.path), "/s /u " + Quote(inProc32.path), S_OK},
        {outProc, outProc.path, "/regserver", "/unregserver", 5},
        {assembly, InstallRecorder("C:\\Windows\\Microsoft.NET\\Framework\\v4.0.30319\\regasm.exe"),
         Quote(assembly.path) + " /silent /tlb", Quote(assembly.path) + " /silent /unregister", 5},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.server.Register(), S_OK) << row.tool;
        SetExitCode(row.tool, 5);
        EXPECT_EQ(row.server.Unregister(), row.failed) << row.tool;
        EXPECT_EQ(Calls(row.tool), Quote(row.tool) + " " + row.reg + "\n" + Quote(row.tool) + " " +
                                       row.unreg + "\n");
    }
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CInProc32Server::_Register").size(), 1u);
}

// Wine's runtime has no runtime directory, so no regasm is found anywhere.
TEST_F(ComServerTest, AssemblyWithoutRegasmFails) {
    kite::CDotNetAssembly assembly;
    assembly.path = Fixture("KiteManaged.dll", "managed.dll");
    EXPECT_EQ(assembly.Register(), E_FAIL);
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CDotNetAssembly::_Register").at(0).back(), "regasm: ");
}

// The file decides for types 1 and 5 only; the manifest's kind is not checked against the file.
TEST_F(ComServerTest, FactoryChoosesTheKindByTypeFlagAndFile) {
    const std::string native = Fixture("kitecom_ok.dll", "NATIVE.DLL"), exe = folder_ / "a.exe";
    const std::string managed = Fixture("KiteManaged.dll", "managed.dll"), ocx = folder_ / "c.OCX";
    const std::string tlb = folder_ / "types.tlb";
    const std::type_info *in = &typeid(kite::CInProcServer), *in32 = &typeid(kite::CInProc32Server),
                         *net = &typeid(kite::CDotNetAssembly), *none = nullptr;
    struct Row {
        std::string path;
        unsigned int type;
        bool folderSupport;
        const std::type_info* kind;
    };
    const Row rows[] = {
        {native, 1, false, in},
        {native, 5, true, in32},
        {managed, 1, false, net},
        {managed, 5, true, net},
        {ocx, 1, false, in},
        {ocx, 5, true, in32},
        {tlb, 2, false, in},
        {tlb, 1, false, none},
        {tlb, 5, true, none},
        {"C:\\a.b\\file", 1, true, none},
        {native, 5, false, none},
        {native, 6, false, none},
        {native, 0, true, none},
        {native, 7, true, none},
        {exe, 1, true, &typeid(kite::COutProcServer)},
    };
    for (const Row& row : rows) {
        const std::string what =
            row.path + " " + std::to_string(row.type) + std::to_string(row.folderSupport);
        const char* kind = "throws";
        try {
            const auto server = kite::CreateComServer(row.path, row.type, row.folderSupport);
            kind = typeid(*server).name();
            EXPECT_EQ(server->path, row.path) << what;
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Not a valid COM server") << what;
        }
        EXPECT_STREQ(kind, row.kind ? row.kind->name() : "throws") << what;
    }
}

}  // namespace
