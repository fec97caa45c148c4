#include "registration/ComServer.h"

#include "registration/RegistrationFixtures.h"
#include "support/LogLines.h"

#include <typeinfo>

namespace {

using kitetest::Quote;

class ComServerTest : public kitetest::RegistrationTest {};

// The in-process attempt answers its entry's status (S_FALSE too) and gives the host its own DLL
// directory, or none, back; the dependent server loads only while its folder is the directory.
TEST_F(ComServerTest, InProcessAttemptAnswersTheEntryAndRestoresTheDllDirectory) {
    struct Row {
        std::string path;
        bool reg;
        HRESULT result;
        const char* line;
        const char* hostDirectory;  // "": none
    };
    const std::string text = folder_ / "text.dll", dep = Fixture("kitedep.dll", "kitedep.dll");
    kitetest::WriteFileBytes(text, "no library");
    const Row rows[] = {
        {Fixture("kitecom_sfalse.dll", "s.dll"), true, S_FALSE, "DllRegisterServer : ", "C:\\"},
        {Fixture("kitecom_noentry.dll", "n.dll"), false, E_INVALIDARG,
         "DllUnregisterServer : ", ""},
        {Fixture("kitecom_dep.dll", "d.dll"), true, S_OK, "DllRegisterServer : ", ""},
        {text, true, HRESULT(0x800700C1), "Failed to load DLL. GetLastError: 193", "C:\\windows"},
        {"kitecom_ok.dll", true, E_FAIL, "HRESULT: 80004005", ""},
    };
    for (const Row& row : rows) {
        ClearLog();
        ::SetDllDirectoryA(*row.hostDirectory ? row.hostDirectory : nullptr);
        kite::CInProcServer server;
        server.path = row.path;
        EXPECT_EQ(server.RegisterInProcess(row.reg), row.result) << row.path;
        char hex[40] = {}, directory[MAX_PATH] = {};
        std::snprintf(hex, sizeof hex, "HRESULT: %lx", static_cast<unsigned long>(row.result));
        const auto lines = kitetest::LinesOfScope(ReadMaskedLog(), "CInProcServer::_Register")[0];
        EXPECT_EQ(lines[0], "server: " + row.path + " register: " + (row.reg ? "1" : "0"));
        EXPECT_EQ(lines.at(1).rfind(row.line, 0), 0u) << row.path;
        EXPECT_EQ(lines.back(), hex);
        EXPECT_STREQ(std::string(directory, ::GetDllDirectoryA(MAX_PATH, directory)).c_str(),
                     row.hostDirectory);
    }
    ::SetDllDirectoryA(nullptr);
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
    const std::string regsvr32 = InstallRecorder("C:\\windows\\syswow64\\regsvr32.exe"),
                      regasm = "C:\\Windows\\Microsoft.NET\\Framework\\v4.0.30319\\regasm.exe";
    struct Row {
        kite::IComServer& server;
        std::string tool, reg, unreg;
        HRESULT failed;
    };
    const Row rows[] = {
        {inProc32, regsvr32, "/s " + Quote(inProc32.path), "/s /u " + Quote(inProc32.path), 0},
        {outProc, outProc.path, "/regserver", "/unregserver", 5},
        {assembly, InstallRecorder(regasm), Quote(assembly.path) + " /silent /tlb",
         Quote(assembly.path) + " /silent /unregister", 5},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.server.Register(), S_OK) << row.tool;
        SetExitCode(row.tool, 5);
        EXPECT_EQ(row.server.Unregister(), row.failed) << row.tool;
        EXPECT_EQ(Calls(row.tool), Quote(row.tool) + " " + row.reg + "\n" + Quote(row.tool) + " " +
                                       row.unreg + "\n");
    }
    EXPECT_EQ(kitetest::LinesOfScope(ReadMaskedLog(), "CInProc32Server::_Register").size(), 1u);
}

// The file decides for types 1 and 5 only; the manifest's kind is not checked against the file.
TEST_F(ComServerTest, FactoryChoosesTheKindByTypeFlagAndFile) {
    const std::string dll = Fixture("kitecom_ok.dll", "NATIVE.DLL"), exe = folder_ / "a.exe";
    const std::string net = Fixture("KiteManaged.dll", "net.dll"), ocx = folder_ / "c.OCX";
    const std::string tlb = folder_ / "types.tlb", dotFolder = "C:\\a.b\\file";
    const char *in = typeid(kite::CInProcServer).name(),
               *in32 = typeid(kite::CInProc32Server).name(),
               *dotNet = typeid(kite::CDotNetAssembly).name(), *none = "throws";
    // clang-format off
    const std::tuple<std::string, unsigned int, bool, const char*> rows[] = {
        {dll, 1, false, in}, {dll, 5, true, in32}, {net, 1, false, dotNet}, {net, 5, true, dotNet},
        {ocx, 1, false, in}, {ocx, 5, true, in32}, {tlb, 2, false, in}, {tlb, 1, false, none},
        {tlb, 5, true, none}, {dotFolder, 1, true, none}, {dll, 5, false, none},
        {dll, 6, false, none}, {dll, 0, true, none}, {dll, 7, true, none},
        {exe, 1, true, typeid(kite::COutProcServer).name()}};
    // clang-format on
    for (const auto& [path, type, folderSupport, kind] : rows) {
        const std::string what = path + " " + std::to_string(type) + std::to_string(folderSupport);
        const char* made = none;
        try {
            const auto server = kite::CreateComServer(path, type, folderSupport);
            made = typeid(*server).name();
            EXPECT_EQ(server->path, path) << what;
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Not a valid COM server") << what;
        }
        EXPECT_STREQ(made, kind) << what;
    }
}

}  // namespace
