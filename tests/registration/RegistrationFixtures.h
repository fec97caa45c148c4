// Fixtures of the registration tests: the built component servers copied into a test folder,
// the recording stand-ins installed where the platform's tools would be, and the registry key
// that the servers write when they are registered.
#pragma once

#include "support/KiteTest.h"

#include <shlwapi.h>

#include <string>
#include <vector>

namespace kitetest {

class RegistrationTest : public LogTest {
  public:
    ~RegistrationTest() override {
        for (const std::string& path : installed_) {
            ::DeleteFileA(path.c_str());
            ::DeleteFileA((path + ".calls").c_str());
            ::DeleteFileA((path + ".exit").c_str());
        }
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\KiteTest");
    }

    // A built fixture copied into the test's folder under the given name.
    std::string Fixture(const std::string& built, const std::string& name) {
        CreateFolders(folder_ / "servers");
        const std::string path = folder_ / ("servers\\" + name);
        CopyFileTo(FixturePath(built), path);
        return path;
    }

    // The recording program installed at a tool's path, removed again after the test.
    std::string InstallRecorder(const std::string& path) {
        CreateFolders(path.substr(0, path.rfind('\\')));
        CopyFileTo(FixturePath("kiterecorder.exe"), path);
        installed_.push_back(path);
        return path;
    }

    static std::string Calls(const std::string& program) {
        return ReadFileBytes(program + ".calls");
    }
    static void SetExitCode(const std::string& program, int code) {
        WriteFileBytes(program + ".exit", std::to_string(code));
    }

    // Whether the server's DllRegisterServer has run (and DllUnregisterServer not since).
    static bool Registered(const std::string& name) {
        char value[32] = {};
        DWORD bytes = sizeof value;
        return ::RegGetValueA(HKEY_LOCAL_MACHINE, "Software\\KiteTest\\Servers", name.c_str(),
                              RRF_RT_REG_SZ, nullptr, value, &bytes) == ERROR_SUCCESS;
    }

  private:
    std::vector<std::string> installed_;
};

}  // namespace kitetest
