#include "exports/Helpers.h"
#include "installer/KiteInstaller.h"
#include "registration/ComServer.h"

#include "support/KiteTest.h"
#include "support/LogLines.h"
#include "support/PlatformOverride.h"

#include <typeinfo>

namespace {

using namespace kitetest;

// Built servers are copied into the test's folder; kiterecorder stands in for a tool.
struct ComServerTest : LogTest {
    ~ComServerTest() override {
        for (const std::string& file : made_) ::DeleteFileA(file.c_str());
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\KiteTest");
    }
    std::string Fixture(const std::string& built, const std::string& name) {
        CopyFileTo(FixturePath(built + ".dll"), folder_ / name);
        return folder_ / name;
    }
    std::string Recorder(const std::string& path) {
        CreateFolders(path.substr(0, path.rfind('\\')));
        CopyFileTo(FixturePath("kiterecorder.exe"), path);
        made_.insert(made_.end(), {path, path + ".calls", path + ".exit"});
        return path;
    }
    std::vector<std::string> made_;
};

// The in-process attempt answers its entry's status (S_FALSE too) and gives the host its own DLL
// directory, or none, back; the dependent server loads only while its folder is the directory.
TEST_F(ComServerTest, InProcessAttemptAnswersTheEntryAndRestoresTheDllDirectory) {
    Fixture("kitedep", "kitedep.dll");
    // clang-format off
    const std::tuple<std::string, bool, std::string, const char*, const char*> rows[] = {
        {Fixture("kitecom_sfalse", "s.dll"), true, "1", "DllRegisterServer : ", "C:\\"},
        {Fixture("kitecom_noentry", "n.dll"), false, "80070057", "DllUnregisterServer : ", ""},
        {Fixture("kitecom_dep", "d.dll"), true, "0", "DllRegisterServer : ", "C:\\windows"},
        {folder_ / "none.dll", true, "8007007e", "Failed to load DLL. GetLastError: 126", ""},
        {"kitecom_ok.dll", true, "80004005", "HRESULT: 80004005", ""}};
    // clang-format on
    for (const auto& [path, reg, result, line, hostDirectory] : rows) {
        ClearLog();
        ::SetDllDirectoryA(*hostDirectory ? hostDirectory : nullptr);
        kite::CInProcServer server;
        server.path = path;
        EXPECT_EQ(server.RegisterInProcess(reg), HRESULT(std::stoul(result, nullptr, 16))) << path;
        const Lines lines = LinesOfScope(ReadMaskedLog(), "CInProcServer::_Register")[0];
        EXPECT_EQ(lines[0], "server: " + path + " register: " + (reg ? "1" : "0"));
        EXPECT_EQ(lines.at(1).rfind(line, 0), 0u) << path;
        EXPECT_EQ(lines.back(), "HRESULT: " + result);
        char directory[MAX_PATH] = {};
        EXPECT_EQ(std::string(directory, ::GetDllDirectoryA(MAX_PATH, directory)), hostDirectory);
    }
    ::SetDllDirectoryA(nullptr);
}

HeldProgram* held;

// Each tool gets its own command line; a failing 32-bit regsvr32 is followed by the in-process
// attempt, the other tools' exit codes are the answer. A tool that does not end within the time
// limit is ended and the call fails: the platform's wait stands in for the minutes, and fails
// outright when asked to wait longer than that.
TEST_F(ComServerTest, ToolsGetTheirCommandLinesAndTheirFailuresAnswer) {
    kite::CInProc32Server inProc32;
    inProc32.path = Fixture("kitecom_ok", "ok32.ocx");
    kite::COutProcServer outProc;
    outProc.path = Recorder(folder_ / "Out Proc Server.exe");
    kite::CDotNetAssembly assembly;
    assembly.path = Fixture("KiteManaged", "Kite Managed.dll");
    const std::string ocx = Quote(inProc32.path), net = Quote(assembly.path);
    const HRESULT failed = HRESULT(0xE0000001);
    // clang-format off
    const std::tuple<kite::IComServer&, std::string, std::string, std::string, HRESULT> rows[] = {
        {inProc32, Recorder("C:\\windows\\syswow64\\regsvr32.exe"), "/s " + ocx, "/s /u " + ocx, 0},
        {outProc, outProc.path, "/regserver", "/unregserver", failed},
        {assembly, Recorder("C:\\Windows\\Microsoft.NET\\Framework\\v4.0.30319\\regasm.exe"),
         net + " /silent /tlb", net + " /silent /unregister", failed}};
    // clang-format on
    for (const auto& [server, tool, reg, unreg, answer] : rows) {
        EXPECT_EQ(server.Register(), S_OK) << tool;
        WriteFileBytes(tool + ".exit", std::to_string(int(failed)));
        EXPECT_EQ(server.Unregister(), answer) << tool;
        EXPECT_EQ(ReadFileBytes(tool + ".calls"),
                  Quote(tool) + " " + reg + "\n" + Quote(tool) + " " + unreg + "\n");
    }
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "CInProc32Server::_Register").size(), 1u);
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "LaunchAndWait").back().back(),
              "Exit code: 3758096385");
    const std::string exe = HeldProgram::ProgramPath();
    HeldProgram hanging;
    held = &hanging;
    PlatformOverride platform;
    platform.calls().WaitForSingleObject = [](HANDLE process, DWORD ms) -> DWORD {
        if (ms > 10 * 60 * 1000) return WAIT_FAILED;
        held->WaitUntilRunning();
        return ::WaitForSingleObject(process, 100);
    };
    const DWORD wait = 1;
    EXPECT_EQ(kite::LaunchAndWait(exe.c_str(), hanging.Arguments().c_str(), &wait), 0x80070102);
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "LaunchAndWait").back(),
              (Lines{Quote(exe) + " " + hanging.Arguments(), "Process creation: 1",
                     "Program still running after 300 seconds: ended"}));
    // The child owned this mutex while it ran: abandoned, it has gone.
    const HANDLE mutex =
        ::OpenMutexA(SYNCHRONIZE, FALSE, (hanging.Arguments().substr(5) + ".alive").c_str());
    EXPECT_EQ(::WaitForSingleObject(mutex, 10000), DWORD(WAIT_ABANDONED));
    ::CloseHandle(mutex);
}

// The file decides for types 1 and 5 only; the manifest's kind is not checked against the file.
TEST_F(ComServerTest, FactoryChoosesTheKindByTypeFlagAndFile) {
    const std::string dll = Fixture("kitecom_ok", "NATIVE.DLL"), ocx = folder_ / "c.OCX";
    const std::string net = Fixture("KiteManaged", "net.dll"), tlb = folder_ / "types.tlb";
    // clang-format off
    const char *none = "throws", *in = typeid(kite::CInProcServer).name(),
    *in32 = typeid(kite::CInProc32Server).name(), *dotNet = typeid(kite::CDotNetAssembly).name();
    const std::tuple<std::string, unsigned int, bool, const char*> rows[] = {
        {dll, 1, false, in}, {dll, 5, true, in32}, {net, 1, false, dotNet}, {net, 5, true, dotNet},
        {ocx, 1, false, in}, {ocx, 5, true, in32}, {tlb, 2, false, in}, {tlb, 1, false, none},
        {"C:\\a.b\\file", 1, true, none}, {dll, 5, false, none}, {dll, 6, false, none},
        {dll, 7, true, none}, {folder_ / "a.exe", 1, true, typeid(kite::COutProcServer).name()}};
    // clang-format on
    for (const auto& [path, type, folderSupport, kind] : rows) {
        const char* made = none;
        try {
            const auto server = kite::CreateComServer(path, type, folderSupport);
            made = typeid(*server).name();
            EXPECT_EQ(server->path, path);
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Not a valid COM server");
        }
        EXPECT_STREQ(made, kind) << path << " " << type << folderSupport;
    }
}

// Skipped without a word: type 0 or out of range (5 and 6 only with folder support) and a missing
// file. The first failure ends the walk: kitecom_fail's in-process status after regsvr32 failed,
// or the S_FALSE after a failing 32-bit regsvr32. A regsvr32 planted beside the host or in its
// current folder never runs.
TEST_F(ComServerTest, RegisterFilesJournalsEachRegistrationUntilTheFirstFailure) {
    WriteFileBytes(Recorder("C:\\windows\\syswow64\\regsvr32.exe") + ".exit", "5");
    const std::string planted[] = {Recorder(ExeFolder() + "\\regsvr32.exe"),
                                   Recorder(folder_ / "regsvr32.exe")};
    char previous[MAX_PATH] = {};
    ::GetCurrentDirectoryA(MAX_PATH, previous);
    ::SetCurrentDirectoryA(folder_.path().c_str());
    // clang-format off
    const std::string a = Fixture("kitecom_ok", "a.dll"), s = Fixture("kitecom_sfalse", "s.dll");
    const std::string f = Fixture("kitecom_fail", "f.dll");
    const kite::Plan plan = {{"", a, 0, {}, {}}, {"", a, 5, {}, {}}, {"", a, 6, {}, {}},
        {"", folder_ / "none.dll", 2, {}, {}}, {"", a, 7, {}, {}}, {"", a, -1, {}, {}},
        {"", a, 2, {}, {}}, {"", s, 6, {}, {}}, {"", f, 2, {}, {}}, {"", a, 2, {}, {}}};
    const std::tuple<bool, Lines, std::string, std::string> rows[] = {
        {false, {"5 " + a + " 2"}, f, "2 HRESULT = 80040201"},
        {true, {"5 " + a + " 5", "5 " + a + " 6", "5 " + a + " 2"}, s, "6 HRESULT = 1"}};
    const std::string scope = "CKiteInstaller::RegisterFiles";
    // clang-format on
    for (const auto& [folderSupport, journal, failed, status] : rows) {
        ClearLog();
        kite::CKiteInstaller installer;
        installer.SetFolderSupport(folderSupport);
        EXPECT_FALSE(installer.RegisterFiles(plan));
        Lines records;
        for (const kite::ActionRecord& r : installer.journal())
            records.push_back(std::to_string(int(r.action)) + " " + r.source + " " +
                              kite::ShownDestination(r));
        EXPECT_EQ(records, journal);
        const std::string log = ReadMaskedLog();
        const Lines server = LinesOfScope(log, "RegisterServer").back();
        EXPECT_EQ(server[0] + " " + server.at(1),
                  "File: " + failed + " Register: 1ServerType: " + status);
        EXPECT_EQ(LinesOfScope(log, "CInProcServer::_Register").size(), folderSupport ? 0u : 1u);
        EXPECT_EQ(LinesOfScope(log, scope).at(0),
                  (Lines{scope + " Failed to register server for : " + failed + " 0",
                         scope + " Return: 0"}));
    }
    ::SetCurrentDirectoryA(previous);
    for (const std::string& tool : planted) EXPECT_EQ(ReadFileBytes(tool + ".calls"), "");
}

}  // namespace
