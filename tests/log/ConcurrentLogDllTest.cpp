#include "KITEUpdate.h"

#include "support/KiteServers.h"

#include <future>
#include <thread>

namespace {

using kitetest::Quote;

class ConcurrentLogTest : public kitetest::LogTest {};

// Two hosts and two threads of a third log through the DLL at once: every line arrives, whole.
TEST_F(ConcurrentLogTest, ProcessesAndThreadsLoggingAtOnceLoseNoLine) {
    const int calls = 200;
    std::map<std::string, int> expected = {{"<stamp> : Entering IsKITEApplicable\r", 4 * calls},
                                           {"<stamp> : Exiting IsKITEApplicable\r", 4 * calls},
                                           {"Return value : 1\r", 4 * calls}};
    kitetest::KiteDll dll;
    const auto applicable = dll.Get<IsKITEApplicableFn>("IsKITEApplicable");
    std::vector<HANDLE> hosts;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        const std::string list = "ABCD"[i] + std::to_string(7 + i), level = list.substr(1);
        const std::string settings = folder_ / (list + ".ini");
        kitetest::WriteFileBytes(settings, "[KITEApplicability]\r\nSlipstreams=" + list + "\r\n");
        expected["Applicability = " + list + "\r"] = expected["Slipstream = " + level + "\r"] =
            calls;
        if (i < 2) {
            hosts.push_back(kitetest::StartProcess(Quote(kitetest::HeldProgram::ProgramPath()) +
                                                   " stress " + Quote(settings) + " " + level +
                                                   " " + std::to_string(calls)));
        } else {
            threads.emplace_back([=] {
                for (int n = 0; n < calls; ++n) applicable(7 + i, settings);
            });
        }
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(::WaitForMultipleObjects(2, hosts.data(), TRUE, 120000), WAIT_OBJECT_0);
    for (HANDLE host : hosts) ::CloseHandle(host);
    std::map<std::string, int> lines;
    std::istringstream log(ReadMaskedLog());
    for (std::string line; std::getline(log, line);) ++lines[line];
    EXPECT_EQ(lines, expected);
}

// Anyone who can open the log can take its line lock; an installation still ends, and logs.
TEST_F(ConcurrentLogTest, InstallationFinishesWhileAnotherProcessHoldsTheLineLock) {
    kitetest::KiteServers servers;
    kitetest::WriteFileBytes(folder_ / "new.txt", "new");
    kitetest::CreateFolders(folder_ / "product");
    kitetest::HeldProgram holder;  // named events only: the lock role owns no "alive" mutex
    HANDLE locking = kitetest::StartProcess(Quote(holder.ProgramPath()) + " lock " +
                                            Quote(LogPath()) + " " + holder.Arguments().substr(5));
    holder.WaitUntilRunning();
    kitetest::KiteDll dll;
    const std::string manifest = "<commands><appdir>" + (folder_ / "product") +
                                 "</appdir><command><src>" + (folder_ / "new.txt") + "</src><dst>" +
                                 (folder_ / "product\\new.txt") +
                                 "</dst><register>0</register></command></commands>";
    const auto install = dll.Get<InstallKiteFn>("InstallKite");
    auto installing = std::async(std::launch::async, [&] { return install(manifest.c_str()); });
    EXPECT_EQ(installing.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    holder.Stop();
    EXPECT_EQ(installing.get(), 0);
    EXPECT_NE(ReadMaskedLog().find("<stamp> : Exiting CKiteInstaller::Install\r\n"),
              std::string::npos);
    ::WaitForSingleObject(locking, 60000);
    ::CloseHandle(locking);
}

}  // namespace
