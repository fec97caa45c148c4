#include "exports/ProductDetection.h"
#include "installer/KiteInstaller.h"

#include "support/KiteTest.h"
#include "support/PlatformOverride.h"

#include <cstring>

namespace {

using kite::CKiteInstaller;
using kitetest::FixturePath;
using kitetest::Trail;

class FileVersionTest : public kitetest::LogTest {};

TEST_F(FileVersionTest, RealVersionResourcesGiveTheWholeBlockAndAQuietTrail) {
    struct Row {
        const char* fixture;
        DWORD build;
        DWORD fileType;
    };
    for (const Row& row :
         {Row{"tw-program-4012.exe", 4012, VFT_APP}, Row{"tw-library-999.dll", 999, VFT_DLL},
          Row{"tw-library-1000.dll", 1000, VFT_DLL}}) {
        ClearLog();
        VS_FIXEDFILEINFO info;
        std::memset(&info, 0xCD, sizeof info);
        EXPECT_EQ(CKiteInstaller::GetFileVersion(FixturePath(row.fixture).c_str(), info), S_OK);
        EXPECT_EQ(info.dwSignature, 0xFEEF04BDUL) << row.fixture;
        EXPECT_EQ(info.dwFileVersionMS, MAKELONG(0, 33)) << row.fixture;
        EXPECT_EQ(info.dwFileVersionLS, MAKELONG(200, row.build)) << row.fixture;
        EXPECT_EQ(info.dwProductVersionLS, MAKELONG(200, row.build)) << row.fixture;
        EXPECT_EQ(info.dwFileType, row.fileType) << row.fixture;

        DWORD major = 0;
        DWORD build = 0;
        EXPECT_EQ(CKiteInstaller::GetModuleVersion(FixturePath(row.fixture).c_str(), major, build),
                  S_OK);
        EXPECT_EQ(major, 33u) << row.fixture;
        EXPECT_EQ(build, row.build) << row.fixture;
        EXPECT_EQ(ReadMaskedLog(), Trail("CKiteInstaller::GetFileVersion", "") +
                                       Trail("CKiteInstaller::GetModuleVersion",
                                             Trail("CKiteInstaller::GetFileVersion", "")))
            << row.fixture;
    }
}

// Each failing step has its own message; the error code reaches every caller's log line.
TEST_F(FileVersionTest, EachFailingStepLogsItsMessageAndErrorCode) {
    static DWORD injected = 0;
    struct Row {
        const char* what;
        std::string folder;
        const char* file;
        void (*arrange)(kite::PlatformCalls& calls);
        const char* message;
        DWORD error;  // 0: whatever the platform says for the file
    };
    const std::string tests = kitetest::ExeFolder();
    const std::string fixtures = tests + "\\fixtures";
    const Row rows[] = {
        {"missing file", fixtures, "missing.exe", nullptr,
         "Failed while reading GetFileVersionInfoSize TWW32.exe :  ", ERROR_FILE_NOT_FOUND},
        {"no version resource", tests, "kitechild.exe", nullptr,
         "Failed while reading GetFileVersionInfoSize TWW32.exe :  ", 0},
        {"information unreadable", fixtures, "tw-program-4012.exe",
         [](kite::PlatformCalls& calls) {
             injected = ERROR_ACCESS_DENIED;
             calls.GetFileVersionInfoA = [](LPCSTR, DWORD, DWORD, LPVOID) -> BOOL {
                 ::SetLastError(injected);
                 return FALSE;
             };
         },
         "Failed while reading GetFileVersionInfo of TWW32.exe : ", ERROR_ACCESS_DENIED},
        {"no root block", fixtures, "tw-program-4012.exe",
         [](kite::PlatformCalls& calls) {
             injected = ERROR_RESOURCE_TYPE_NOT_FOUND;
             calls.VerQueryValueA = [](LPCVOID, LPCSTR, LPVOID*, PUINT) -> BOOL {
                 ::SetLastError(injected);
                 return FALSE;
             };
         },
         "Failed while VerQueryValue for TWW32.exe :  ", ERROR_RESOURCE_TYPE_NOT_FOUND},
    };
    for (const Row& row : rows) {
        const std::string path = row.folder + "\\" + row.file;
        DWORD error = row.error;
        if (error == 0) {
            DWORD unused = 0;
            ASSERT_EQ(::GetFileVersionInfoSizeA(path.c_str(), &unused), 0u) << row.what;
            error = ::GetLastError();
            ASSERT_NE(error, 0u) << row.what;
        }
        const std::string code = std::to_string(error);
        kitetest::PlatformOverride platform;
        if (row.arrange) row.arrange(platform.calls());
        ClearLog();

        DWORD major = 7;
        DWORD build = 7;
        EXPECT_EQ(CKiteInstaller::GetModuleVersion(path.c_str(), major, build), E_FAIL) << row.what;
        EXPECT_EQ(major + build, 14u) << row.what;
        EXPECT_EQ(kite::GetSlipStreamFromFile(row.folder.c_str(), row.file), -1) << row.what;
        EXPECT_EQ(ReadMaskedLog(),
                  Trail("CKiteInstaller::GetModuleVersion",
                        Trail("CKiteInstaller::GetFileVersion", row.message + code + "\r\n") +
                            "Failed while reading File version of TWW32.exe :" + code + "\r\n") +
                      Trail("GetSlipStreamFromFile", "GetFileVersion() returned " + code + "\r\n"))
            << row.what;
    }
}

}  // namespace
