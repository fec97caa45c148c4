#include "support/KiteTest.h"

#include <map>
#include <sstream>

namespace {

using kitetest::Quote;

class ConcurrentLogTest : public kitetest::LogTest {};

// Two hosts log through the DLL at the same moment: every line of both arrives, whole.
TEST_F(ConcurrentLogTest, TwoProcessesLoggingAtOnceLoseNoLine) {
    const int calls = 200;
    kitetest::TempFolder package("package");
    const char* lists[] = {"A7", "B8"};
    HANDLE hosts[2];
    for (int i = 0; i < 2; ++i) {
        const std::string settings = package / (std::string(lists[i]) + ".ini");
        kitetest::WriteFileBytes(
            settings, std::string("[KITEApplicability]\r\nSlipstreams=") + lists[i] + "\r\n");
        hosts[i] = kitetest::StartProcess(Quote(kitetest::ExeFolder() + "\\kitestress.exe") + " " +
                                          Quote(settings) + " " + std::to_string(7 + i) + " " +
                                          std::to_string(calls));
    }
    ASSERT_EQ(::WaitForMultipleObjects(2, hosts, TRUE, 120000), WAIT_OBJECT_0);
    for (HANDLE host : hosts) {
        DWORD code = 1;
        ::GetExitCodeProcess(host, &code);
        EXPECT_EQ(code, 0u);
        ::CloseHandle(host);
    }

    std::map<std::string, int> lines;
    std::istringstream log(ReadMaskedLog());
    std::string line;
    while (std::getline(log, line)) ++lines[line];
    const std::map<std::string, int> expected = {
        {"<stamp> : Entering IsKITEApplicable\r", 2 * calls},
        {"<stamp> : Exiting IsKITEApplicable\r", 2 * calls},
        {"Applicability = A7\r", calls},
        {"Applicability = B8\r", calls},
        {"Slipstream = 7\r", calls},
        {"Slipstream = 8\r", calls},
        {"Return value : 1\r", 2 * calls},
    };
    EXPECT_EQ(lines, expected);
}

}  // namespace
