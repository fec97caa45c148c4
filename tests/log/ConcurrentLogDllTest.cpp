#include "KITEUpdate.h"

#include "log/ScopeLog.h"
#include "support/KiteTest.h"

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

}  // namespace
