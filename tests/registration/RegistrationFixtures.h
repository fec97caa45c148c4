// Fixtures of the registration tests: built component servers copied into the test's folder,
// recording stand-ins put where a tool would be, and the key the servers write when registered.
#pragma once

#include "support/KiteTest.h"

#include <string>
#include <vector>

namespace kitetest {

class RegistrationTest : public LogTest {
  public:
    ~RegistrationTest() override {
        for (const std::string& path : installed_) {
            for (const char* suffix : {"", ".calls", ".exit"})
                ::DeleteFileA((path + suffix).c_str());
        }
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\KiteTest");
    }
    std::string Fixture(const std::string& built, const std::string& name) {
        CreateFolders(folder_ / "servers");
        CopyFileTo(FixturePath(built), folder_ / ("servers\\" + name));
        return folder_ / ("servers\\" + name);
    }
    std::string InstallRecorder(const std::string& path) {
        CreateFolders(path.substr(0, path.rfind('\\')));
        CopyFileTo(FixturePath("kiterecorder.exe"), path);
        installed_.push_back(path);
        return path;
    }
    static std::string Calls(const std::string& tool) { return ReadFileBytes(tool + ".calls"); }
    static void SetExitCode(const std::string& tool, int code) {
        WriteFileBytes(tool + ".exit", std::to_string(code));
    }
    // Whether the server's DllRegisterServer has run (and DllUnregisterServer not since).
    static bool Registered(const std::string& name) {
        return ::RegGetValueA(HKEY_LOCAL_MACHINE, "Software\\KiteTest\\Servers", name.c_str(),
                              RRF_RT_REG_SZ, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
    }

  private:
    std::vector<std::string> installed_;
};

}  // namespace kitetest
