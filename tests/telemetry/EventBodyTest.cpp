#include "common/BoundedFormat.h"
#include "telemetry/EventBody.h"
#include "telemetry/OperatingSystem.h"
#include "telemetry/TelemetryReporter.h"

#include "support/PlatformOverride.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

// A body of 1699 characters fits its buffer with the terminator, and a host of 999 characters
// its; one more ends the process instead of cutting the text short.
TEST(EventBodyDeathTest, TextOverItsBufferIsFatal) {
    const int code = static_cast<int>(kite::kInvalidArgumentExitCode);
    const std::string head = kite::ComposeEventBody(true, "T", "ID", "OS", "");
    const std::string fits(kite::kEventBodyBytes - 1 - head.size(), 'm');
    EXPECT_EQ(kite::ComposeEventBody(true, "T", "ID", "OS", fits.c_str()).size(), 1699u);
    EXPECT_EXIT(kite::ComposeEventBody(true, "T", "ID", "OS", (fits + "m").c_str()),
                ::testing::ExitedWithCode(code), "");
    kite::TelemetryReporter reporter;
    reporter.ledEnabled = true;
    reporter.ledProd.host.assign(1000, 'h');
    EXPECT_EXIT(reporter.PostEvent("k=v", true, "PROD"), ::testing::ExitedWithCode(code), "");
}

// The system that the platform's version tests describe.
struct FakeSystem {
    WORD major, minor, servicePack;
    bool server;
};
FakeSystem fakeSystem;

BOOL WINAPI FakeVerifyVersionInfoW(LPOSVERSIONINFOEXW wanted, DWORD typeMask, DWORDLONG) {
    if (typeMask & VER_PRODUCT_TYPE) return !fakeSystem.server;  // "is a workstation"
    const auto have = std::make_tuple(fakeSystem.major, fakeSystem.minor, fakeSystem.servicePack);
    return have >= std::make_tuple(static_cast<WORD>(wanted->dwMajorVersion),
                                   static_cast<WORD>(wanted->dwMinorVersion),
                                   wanted->wServicePackMajor);
}

TEST(OperatingSystem, EachVersionGetsItsRowName) {
    kitetest::PlatformOverride platform;
    platform.calls().VerifyVersionInfoW = FakeVerifyVersionInfoW;
    platform.calls().IsWow64Process = nullptr;
    struct Row {
        FakeSystem system;
        const char* piece;
    };
    const Row rows[] = {
        {{5, 0, 4, false}, "OS=\"32 Bit "},
        {{5, 1, 0, false}, "OS=\"32 Bit WindowsXP\"&"},
        {{5, 1, 1, true}, "OS=\"32 Bit WindowsXPSP1\"&"},
        {{5, 1, 2, false}, "OS=\"32 Bit WindowsXPSP2\"&"},
        {{5, 2, 3, false}, "OS=\"32 Bit WindowsXPSP3\"&"},
        {{6, 0, 0, false}, "OS=\"32 Bit WindowsVista\"&"},
        {{6, 0, 0, true}, "OS=\"32 Bit WindowsServer2008\"&"},
        {{6, 0, 1, false}, "OS=\"32 Bit WindowsVistaSP1\"&"},
        {{6, 0, 2, false}, "OS=\"32 Bit WindowsVistaSP2\"&"},
        {{6, 1, 0, false}, "OS=\"32 Bit Windows7\"&"},
        {{6, 1, 0, true}, "OS=\"32 Bit WindowsServer2008R2\"&"},
        {{6, 1, 1, false}, "OS=\"32 Bit Windows7 SP1\"&"},
        {{6, 2, 0, false}, "OS=\"32 Bit Windows8\"&"},
        {{6, 2, 0, true}, "OS=\"32 Bit WindowsServer2012\"&"},
        {{6, 3, 0, false}, "OS=\"32 Bit Windows8_1\"&"},
        {{10, 0, 0, true}, "OS=\"32 Bit WindowsServer2012R2\"&"},
    };
    for (const Row& row : rows) {
        fakeSystem = row.system;
        EXPECT_EQ(kite::DescribeOperatingSystem(), row.piece)
            << row.system.major << "." << row.system.minor << " SP" << row.system.servicePack;
    }
}

// "64 Bit" only for a process under 32-bit emulation; this 64-bit module reports "32 Bit".
TEST(OperatingSystem, BitnessComesFromIsWow64Process) {
    kitetest::PlatformOverride platform;
    platform.calls().VerifyVersionInfoW = FakeVerifyVersionInfoW;
    fakeSystem = {6, 1, 0, false};
    EXPECT_EQ(kite::DescribeOperatingSystem(), "OS=\"32 Bit Windows7\"&") << "this process";
    struct Row {
        decltype(&::IsWow64Process) answer;
        const char* piece;
    };
    const Row rows[] = {
        {[](HANDLE, PBOOL emulated) -> BOOL { return *emulated = TRUE; },
         "OS=\"64 Bit Windows7\"&"},
        {[](HANDLE, PBOOL emulated) -> BOOL {
             *emulated = FALSE;
             return TRUE;
         },
         "OS=\"32 Bit Windows7\"&"},
        // A failed call's answer is not taken.
        {[](HANDLE, PBOOL emulated) -> BOOL {
             *emulated = TRUE;
             return FALSE;
         },
         "OS=\"32 Bit Windows7\"&"},
    };
    for (const Row& row : rows) {
        platform.calls().IsWow64Process = row.answer;
        EXPECT_EQ(kite::DescribeOperatingSystem(), row.piece);
    }
}

}  // namespace
