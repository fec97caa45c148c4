#include "KITEUpdate.h"

#include "common/Handles.h"
#include "log/ScopeLog.h"
#include "support/KiteTest.h"

#include <future>

namespace {

using kitetest::Quote;

class ConcurrentLogTest : public kitetest::LogTest {};

// Two hosts, each with two threads, log through the DLL at once: every line arrives, whole. They
// start after a writer was killed while it held the line lock, and take its lock over.
TEST_F(ConcurrentLogTest, ProcessesAndThreadsLoggingAtOnceLoseNoLine) {
    const kite::UniqueHandle section(::CreateFileMappingA(
        INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(LONG), kite::kLineLockName));
    kitetest::HeldProgram killed;
    HANDLE locking = kitetest::StartProcess(Quote(killed.ProgramPath()) + " lock " +
                                            killed.Arguments().substr(5));
    killed.WaitUntilRunning();
    ::TerminateProcess(locking, 1);
    ::WaitForSingleObject(locking, 60000);
    ::CloseHandle(locking);
    const int calls = 200;
    std::map<std::string, int> expected = {{"<stamp> : Entering IsKITEApplicable\r", 4 * calls},
                                           {"<stamp> : Exiting IsKITEApplicable\r", 4 * calls},
                                           {"Return value : 1\r", 4 * calls}};
    HANDLE hosts[2];
    for (int i = 0; i < 2; ++i) {
        const std::string list = "AB"[i] + std::to_string(7 + i), level = list.substr(1);
        const std::string settings = folder_ / (list + ".ini");
        kitetest::WriteFileBytes(settings, "[KITEApplicability]\r\nSlipstreams=" + list + "\r\n");
        expected["Applicability = " + list + "\r"] = expected["Slipstream = " + level + "\r"] =
            2 * calls;
        hosts[i] =
            kitetest::StartProcess(Quote(kitetest::HeldProgram::ProgramPath()) + " stress " +
                                   Quote(settings) + " " + level + " " + std::to_string(calls));
    }
    ASSERT_EQ(::WaitForMultipleObjects(2, hosts, TRUE, 120000), WAIT_OBJECT_0);
    for (HANDLE host : hosts) ::CloseHandle(host);
    std::map<std::string, int> lines;
    std::istringstream log(ReadMaskedLog());
    for (std::string line; std::getline(log, line);) ++lines[line];
    EXPECT_EQ(lines, expected);
}

// Anyone who can open the log can take its line lock; an installation still ends, and logs.
TEST_F(ConcurrentLogTest, InstallationFinishesWhileAnotherProcessHoldsTheLineLock) {
    kitetest::HeldProgram holder;  // named events only: the lock role owns no "alive" mutex
    HANDLE locking = kitetest::StartProcess(Quote(holder.ProgramPath()) + " lock " +
                                            holder.Arguments().substr(5));
    holder.WaitUntilRunning();
    kitetest::KiteDll dll;
    const std::string manifest = "<commands><appdir>" + folder_.path() + "</appdir></commands>";
    auto installing = std::async(std::launch::async, [&] {
        return dll.Get<InstallKiteFn>("InstallKite")(manifest.c_str());
    });
    EXPECT_EQ(installing.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    holder.Stop();
    EXPECT_EQ(installing.get(), 0);
    EXPECT_NE(ReadMaskedLog().find("Return = 0\r\n<stamp> : Exiting CKiteInstaller::Install\r\n"),
              std::string::npos);
    ::WaitForSingleObject(locking, 60000);
    ::CloseHandle(locking);
}

}  // namespace
