#include "KITEUpdate.h"

#include "log/ScopeLog.h"
#include "support/KiteTest.h"

#include <algorithm>
#include <filesystem>
#include <future>

namespace {

using namespace kitetest;

// Anyone who can open the log can take its line lock: an installation still ends, and logs. Then
// the holder is killed, and two hosts, each with two threads, log through the DLL at once: they
// take the ended holder's lock over, and every line arrives, whole.
TEST_F(LogTest, AHeldLineLockFreezesNoInstallationAndProcessesAndThreadsLoseNoLine) {
    HeldProgram holder;
    HANDLE locking =
        StartProcess(Quote(holder.ProgramPath()) + " lock " + holder.Arguments().substr(5));
    holder.WaitUntilRunning();
    KiteDll dll;  // its log keeps the lock word after the holder is gone
    const std::string manifest = "<commands><appdir>" + folder_.path() + "</appdir></commands>";
    auto installing = std::async(std::launch::async, [&] {
        return dll.Get<InstallKiteFn>("InstallKite")(manifest.c_str());
    });
    EXPECT_EQ(installing.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    ::TerminateProcess(locking, 1);
    EXPECT_EQ(installing.get(), 0);
    EXPECT_NE(ReadMaskedLog().find("Return = 0\r\n<stamp> : Exiting CKiteInstaller::Install\r\n"),
              std::string::npos);
    ::WaitForSingleObject(locking, 60000);
    ::CloseHandle(locking);
    ClearLog();
    std::map<std::string, int> expected = {{"<stamp> : Entering IsKITEApplicable\r", 800},
                                           {"<stamp> : Exiting IsKITEApplicable\r", 800},
                                           {"Return value : 1\r", 800}};
    HANDLE hosts[2];
    for (int i = 0; i < 2; ++i) {
        const std::string list = "AB"[i] + std::to_string(7 + i), level = list.substr(1);
        const std::string settings = folder_ / (list + ".ini");
        WriteFileBytes(settings, "[KITEApplicability]\r\nSlipstreams=" + list + "\r\n");
        expected["Applicability = " + list + "\r"] = expected["Slipstream = " + level + "\r"] = 400;
        hosts[i] = StartProcess(Quote(HeldProgram::ProgramPath()) + " stress " + Quote(settings) +
                                " " + level + " 200");
    }
    ASSERT_EQ(::WaitForMultipleObjects(2, hosts, TRUE, 120000), WAIT_OBJECT_0);
    for (HANDLE host : hosts) ::CloseHandle(host);
    std::map<std::string, int> lines;
    std::istringstream log(ReadMaskedLog());
    for (std::string line; std::getline(log, line);) ++lines[line];
    EXPECT_EQ(lines, expected);
}

// The prefix's Unix path of a path on C:.
std::string UnixPath(std::string path) {
    std::replace(path.begin(), path.end(), '\\', '/');
    return std::string(std::getenv("WINEPREFIX")) + "/drive_c" + path.substr(2);
}

// Wine starts a Unix program without a process to wait for: the script marks its own end.
void RunUnixIn(const std::string& folder, const std::string& script) {
    RunProcess("/bin/bash -c \"cd '" + UnixPath(folder) + "'; " + script + "; touch done\"");
    for (int i = 0; i < 1200 && !Exists(folder + "\\done"); ++i) ::Sleep(50);
    ::DeleteFileA((folder + "\\done").c_str());
}

// Wine 8 makes no symbolic link of its own; it shows a Unix one (a folder's as a reparse point).
// Each data folder d<i> has a link at its log or log folder: to a file over 100 MiB, a name of no
// file, another log, an empty folder; d4 a hard link at its log to that file, made in its turn so
// that the first row sees a file of one name. The export answers as usual, and every target stays
// as it was.
TEST_F(LogTest, ALinkAtTheLogOrItsFolderLeavesItsTargetAsItWas) {
    const std::string big = folder_ / "big.dll", other = folder_ / "other\\CRITICALFIXES.LOG";
    CreateFolders(folder_ / "other\\empty");
    CreateFolders(folder_ / "CriticalFixes");
    WriteFileBytes(folder_ / "CriticalFixes\\force_apply_kite.dat", "");
    WriteFileBytes(other, "kept\r\n");
    WriteFileBytes(big, "MZ");
    std::filesystem::resize_file(big, 104857601);
    const auto state = [&] {
        return std::to_string(std::hash<std::string>()(ReadFileBytes(big))) + ReadFileBytes(other) +
               std::to_string(Exists(folder_ / "none") +
                              2 * Exists(folder_ / "other\\empty\\CRITICALFIXES.LOG"));
    };
    const std::string before = state();
    RunUnixIn(folder_.path(),
              "mkdir -p d{0,1,2,3,4}/twupdate/log;"
              "ln -s ../../../big.dll d0/twupdate/log/CRITICALFIXES.LOG;"
              "ln -s ../../../none d1/twupdate/log/CRITICALFIXES.LOG;"
              "rmdir d2/twupdate/log; ln -s ../../other d2/twupdate/log;"
              "rmdir d3/twupdate/log; ln -s ../../other/empty d3/twupdate/log");
    EXPECT_EQ(ReadFileBytes(folder_ / "d2\\twupdate\\log\\CRITICALFIXES.LOG"), "kept\r\n");
    KiteDll dll;
    for (int i = 0; i < 5; ++i) {
        dataPath_.SetString(folder_ / ("d" + std::to_string(i)));
        const std::string log = folder_ / ("d" + std::to_string(i)) + "\\twupdate\\log";
        if (i == 4) ::CreateHardLinkA((log + "\\CRITICALFIXES.LOG").c_str(), big.c_str(), nullptr);
        EXPECT_EQ(
            dll.Get<IsKITEToBeForceAppliedFn>("IsKITEToBeForceApplied")(folder_.path().c_str()), 1);
        EXPECT_EQ(state(), before) << i;
    }
    RunUnixIn(folder_.path(), "rm -r d*");
}

}  // namespace
