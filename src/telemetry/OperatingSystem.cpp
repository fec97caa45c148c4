#include "telemetry/OperatingSystem.h"

#include "common/Platform.h"

namespace kite {

namespace {

struct SystemRow {
    WORD major;
    WORD minor;
    WORD servicePack;
    const char* workstation;
    const char* server;
};

const SystemRow kSystems[] = {
    {5, 1, 0, "WindowsXP\"&", "WindowsXP\"&"},
    {5, 1, 1, "WindowsXPSP1\"&", "WindowsXPSP1\"&"},
    {5, 1, 2, "WindowsXPSP2\"&", "WindowsXPSP2\"&"},
    {5, 1, 3, "WindowsXPSP3\"&", "WindowsXPSP3\"&"},
    {6, 0, 0, "WindowsVista\"&", "WindowsServer2008\"&"},
    {6, 0, 1, "WindowsVistaSP1\"&", "WindowsServer2008\"&"},
    {6, 0, 2, "WindowsVistaSP2\"&", "WindowsServer2008\"&"},
    {6, 1, 0, "Windows7\"&", "WindowsServer2008R2\"&"},
    {6, 1, 1, "Windows7 SP1\"&", "WindowsServer2008R2\"&"},
    {6, 2, 0, "Windows8\"&", "WindowsServer2012\"&"},
    {6, 3, 0, "Windows8_1\"&", "WindowsServer2012R2\"&"},
};

// The IsWindowsVersionOrGreater rule: major, minor and service pack each greater or equal.
bool SystemIsAtLeast(WORD major, WORD minor, WORD servicePack) {
    OSVERSIONINFOEXW wanted = {};
    wanted.dwOSVersionInfoSize = sizeof wanted;
    wanted.dwMajorVersion = major;
    wanted.dwMinorVersion = minor;
    wanted.wServicePackMajor = servicePack;
    DWORDLONG mask = ::VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
    mask = ::VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
    mask = ::VerSetConditionMask(mask, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
    return Platform().VerifyVersionInfoW(
               &wanted, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR, mask) != FALSE;
}

// The IsWindowsServer rule: the product type is not workstation.
bool SystemIsServer() {
    OSVERSIONINFOEXW wanted = {};
    wanted.dwOSVersionInfoSize = sizeof wanted;
    wanted.wProductType = VER_NT_WORKSTATION;
    const DWORDLONG mask = ::VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL);
    return Platform().VerifyVersionInfoW(&wanted, VER_PRODUCT_TYPE, mask) == FALSE;
}

bool RunsUnderWow64() {
    BOOL emulated = FALSE;
    const auto isWow64Process = Platform().IsWow64Process;
    return isWow64Process != nullptr && isWow64Process(::GetCurrentProcess(), &emulated) &&
           emulated;
}

}  // namespace

const char* OperatingSystemName(const VersionTest& atLeast, bool isServer) {
    const std::size_t count = sizeof kSystems / sizeof kSystems[0];
    for (std::size_t i = 0; i < count; ++i) {
        const SystemRow& row = kSystems[i];
        const SystemRow* upper = i + 1 < count ? &kSystems[i + 1] : nullptr;
        if (atLeast(row.major, row.minor, row.servicePack) &&
            (upper == nullptr || !atLeast(upper->major, upper->minor, upper->servicePack))) {
            return isServer ? row.server : row.workstation;
        }
    }
    return "";
}

std::string OperatingSystemPiece(bool underWow64, const char* name) {
    return std::string("OS=") + (underWow64 ? "\"64 Bit " : "\"32 Bit ") + name;
}

std::string DescribeOperatingSystem() {
    return OperatingSystemPiece(RunsUnderWow64(),
                                OperatingSystemName(SystemIsAtLeast, SystemIsServer()));
}

}  // namespace kite
