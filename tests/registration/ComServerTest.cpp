#include "exports/Helpers.h"
#include "installer/KiteInstaller.h"
#include "registration/ComServer.h"

#include "support/KiteTest.h"
#include "support/PlatformOverride.h"

namespace {

using namespace kitetest;

struct ComServerTest : LogTest {
    ~ComServerTest() override {
        for (const std::string& file : made_) ::DeleteFileA(file.c_str());
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\KiteTest");
    }
    std::string Fixture(const std::string& built, const std::string& name) {
        return CopyFileTo(FixturePath(built + ".dll"), folder_ / name), folder_ / name;
    }
    std::string Recorder(const std::string& path) {
        CreateFolders(path.substr(0, path.rfind('\\')));
        CopyFileTo(FixturePath("kiterecorder.exe"), path);
        made_.insert(made_.end(), {path, path + ".calls", path + ".exit"});
        return path;
    }
    std::vector<std::string> made_;
};

// kitecom_dep loads only with its folder as the DLL directory; the host's, or none, comes back.
TEST_F(ComServerTest, InProcessAttemptAnswersTheEntryAndRestoresTheDllDirectory) {
    const std::tuple<std::string, bool, std::string, const char*, const char*> rows[] = {
        {Fixture("kitecom_sfalse", "s.dll"), true, "1", "DllRegisterServer : ", "C:\\"},
        {Fixture("kitedep", "kitedep.dll"), false, "80070057", "DllUnregisterServer : ", ""},
        {Fixture("kitecom_dep", "d.dll"), true, "0", "DllRegisterServer : ", "C:\\windows"},
        {folder_ / "none.dll", true, "8007007e", "Failed to load DLL. GetLastError: 126", ""},
        {"kitecom_ok.dll", true, "80004005", "HRESULT: 80004005", ""}};
    for (const auto& [path, reg, result, line, hostDirectory] : rows) {
        ::SetDllDirectoryA(*hostDirectory ? hostDirectory : nullptr);
        kite::CInProcServer server;
        server.path = path;
        EXPECT_EQ(server.RegisterInProcess(reg), HRESULT(std::stoul(result, nullptr, 16))) << path;
        const Lines lines = LinesOfScope(ReadMaskedLog(), "CInProcServer::_Register").back();
        EXPECT_EQ(lines[0], "server: " + path + " register: " + (reg ? "1" : "0"));
        EXPECT_EQ(lines.at(1).rfind(line, 0), 0u) << path;
        EXPECT_EQ(lines.back(), "HRESULT: " + result);
        char directory[MAX_PATH] = {};
        EXPECT_EQ(std::string(directory, ::GetDllDirectoryA(MAX_PATH, directory)), hostDirectory);
    }
}

HeldProgram* held;

std::string WindowsFolder() {
    char folder[MAX_PATH] = {};
    return std::string(folder, ::GetSystemWindowsDirectoryA(folder, MAX_PATH));
}

// A failing 32-bit regsvr32 is followed by the in-process attempt. A tool still running at the
// limit (the seam's wait stands in for the minutes, failing beyond them) is ended.
TEST_F(ComServerTest, ToolsGetTheirCommandLinesAndTheirFailuresAnswer) {
    const auto ocx = kite::CreateComServer(Fixture("kitecom_ok", "ok32.ocx"), 5, true);
    const auto exe = kite::CreateComServer(Recorder(folder_ / "Out Proc Server.exe"), 1, false);
    const auto net = kite::CreateComServer(Fixture("KiteManaged", "Kite Managed.dll"), 4, false);
    const std::string o = Quote(ocx->path), n = Quote(net->path);
    const std::tuple<kite::IComServer&, std::string, std::string, std::string, HRESULT> rows[] = {
        {*ocx, Recorder("C:\\windows\\syswow64\\regsvr32.exe"), "/s " + o, "/s /u " + o, 0},
        {*exe, exe->path, "/regserver", "/unregserver", E_UNEXPECTED},
        {*net, Recorder(WindowsFolder() + "\\Microsoft.NET\\Framework\\v4.0.30319\\regasm.exe"),
         n + " /silent /tlb", n + " /silent /unregister", E_UNEXPECTED}};
    for (const auto& [server, tool, reg, unreg, answer] : rows) {
        EXPECT_EQ(server.Register(), S_OK) << tool;
        WriteFileBytes(tool + ".exit", std::to_string(E_UNEXPECTED));
        EXPECT_EQ(server.Unregister(), answer) << tool;
        EXPECT_EQ(ReadFileBytes(tool + ".calls"),
                  Quote(tool) + " " + reg + "\n" + Quote(tool) + " " + unreg + "\n");
    }
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "LaunchAndWait").back().back(),
              "Exit code: 2147549183");
    const std::string program = HeldProgram::ProgramPath();
    HeldProgram hanging;
    held = &hanging;
    PlatformOverride platform;
    platform.calls().WaitForSingleObject = [](HANDLE process, DWORD ms) -> DWORD {
        if (ms > 10 * 60 * 1000) return WAIT_FAILED;
        held->WaitUntilRunning();
        return ::WaitForSingleObject(process, 100);
    };
    const DWORD wait = 1;
    EXPECT_EQ(kite::LaunchAndWait(program.c_str(), hanging.Arguments().c_str(), &wait), 0x80070102);
    EXPECT_EQ(LinesOfScope(ReadMaskedLog(), "LaunchAndWait").back(),
              (Lines{Quote(program) + " " + hanging.Arguments(), "Process creation: 1",
                     "Program still running after 300 seconds: ended"}));
    const std::string mutex = hanging.Arguments().substr(5) + ".alive";
    EXPECT_EQ(::WaitForSingleObject(::OpenMutexA(SYNCHRONIZE, FALSE, mutex.c_str()), 10000),
              DWORD(WAIT_ABANDONED));
}

// The file decides for types 1 and 5 only; the manifest's kind is not checked against the file.
TEST_F(ComServerTest, FactoryChoosesTheKindByTypeFlagAndFile) {
    const std::string dll = Fixture("kitecom_ok", "NATIVE.DLL"), ocx = folder_ / "c.OCX";
    const std::string net = Fixture("KiteManaged", "net.dll"), tlb = folder_ / "types.tlb";
    const std::string none = "Not a valid COM server", in = typeid(kite::CInProcServer).name(),
                      in32 = typeid(kite::CInProc32Server).name(),
                      dotNet = typeid(kite::CDotNetAssembly).name();
    const std::tuple<std::string, unsigned int, bool, std::string> rows[] = {
        {dll, 1, false, in},    {dll, 5, true, in32},  {net, 1, false, dotNet},
        {net, 5, true, dotNet}, {ocx, 1, false, in},   {tlb, 2, false, in},
        {tlb, 1, false, none},  {dll, 5, false, none}, {dll, 6, false, none}};
    for (const auto& [path, type, folderSupport, kind] : rows) {
        std::string made;
        try {
            const auto server = kite::CreateComServer(path, type, folderSupport);
            made = typeid(*server).name();
        } catch (const std::runtime_error& error) {
            made = error.what();
        }
        EXPECT_EQ(made, kind) << path << " " << type << folderSupport;
    }
}

// Types 5 and 6 need folder support. The first failure ends the walk: kitecom_fail's in-process
// status after regsvr32 failed, or S_FALSE after a failing 32-bit regsvr32.
TEST_F(ComServerTest, RegisterFilesJournalsEachRegistrationUntilTheFirstFailure) {
    WriteFileBytes(Recorder("C:\\windows\\syswow64\\regsvr32.exe") + ".exit", "5");
    const std::string planted = Recorder(ExeFolder() + "\\regsvr32.exe");
    const std::string a = Fixture("kitecom_ok", "a.dll"), s = Fixture("kitecom_sfalse", "s.dll");
    const std::string f = Fixture("kitecom_fail", "f.dll"), scope = "CKiteInstaller::RegisterFiles";
    const std::vector<kite::PlannedCommand> plan = {
        {"", a, 0, {}, {}}, {"", a, 5, {}, {}}, {"", a, 2, {}, {}}, {"", a + "x", 2, {}, {}},
        {"", s, 6, {}, {}}, {"", f, 2, {}, {}}, {"", a, 2, {}, {}}};
    const std::tuple<bool, std::size_t, std::string, std::string, std::string> rows[] = {
        {false, 1, f, "2", "80040201"}, {true, 2, s, "6", "1"}};
    for (const auto& [folderSupport, registered, failed, type, hr] : rows) {
        kite::CKiteInstaller installer;
        installer.SetFolderSupport(folderSupport);
        installer.SetCommands(plan);
        EXPECT_FALSE(installer.RegisterFiles());
        EXPECT_EQ(installer.journal().size(), registered);
        const std::string log = ReadMaskedLog();
        EXPECT_EQ(
            LinesOfScope(log, "RegisterServer").back(),
            (Lines{"File: " + failed + " Register: 1ServerType: " + type, "HRESULT = " + hr}));
        EXPECT_EQ(LinesOfScope(log, "CInProcServer::_Register").size(), 1u);
        // The system folder's regsvr32 ran, under the command line the trace has always shown.
        EXPECT_EQ(LinesOfScope(log, "LaunchAndWait").front().front(),
                  "\"regsvr32.exe\" /s " + Quote(a));
        EXPECT_EQ(LinesOfScope(log, scope).back(),
                  (Lines{scope + " Failed to register server for : " + failed + " 0",
                         scope + " Return: 0"}));
    }
    EXPECT_EQ(ReadFileBytes(planted + ".calls"), "");
}

}  // namespace
