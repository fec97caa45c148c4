#include "exports/ProductDetection.h"

#include "KITEUpdate.h"

#include "support/KiteTest.h"
#include "support/PlatformOverride.h"

namespace {

TEST(ModulePathMatchesFilter, PlainPrefixWithoutCaseTrailingBackslashOrDrive) {
    struct Row {
        const char* path;
        const char* filter;
        bool matches;
    };
    const Row rows[] = {
        {"C:\\Apps\\tww.exe", "C:\\Apps", true},
        {"C:\\Apps2\\tww.exe", "C:\\Apps\\", true},
        {"c:\\APPS\\tww.exe", "C:\\apps\\", true},
        {"D:\\Apps\\tww.exe", "C:\\Apps", false},
        {"D:\\Apps\\tww.exe", "\\Apps", true},
        {"C:\\Apps\\tww.exe", "Apps", false},
        {"C:\\Apps\\tww.exe", "C:", true},
        {"C:\\Apps\\tww.exe", "D:", false},
        {"C:\\Apps\\tww.exe", "\\", true},
        {"C:\\Apps\\tww.exe", "", true},
        {"C:\\A", "C:\\Apps", false},
        {"C", "\\Apps", false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(kite::ModulePathMatchesFilter(row.path, row.filter), row.matches)
            << row.path << " / " << row.filter;
    }
}

// A filtered count must read each program's path; one that cannot be opened or read is not
// counted, while the unfiltered count never opens a process.
TEST(GetCountOfTwInstances, ProgramsWhosePathCannotBeReadAreNotCounted) {
    kitetest::TempFolder folder("count");
    kitetest::CopyFileTo(kitetest::HeldProgram::ProgramPath(), folder / "tww.exe");
    kitetest::HeldProgram program;
    program.Start(folder / "tww.exe");
    struct Row {
        const char* what;
        void (*arrange)(kite::PlatformCalls& calls);
        int all;
        int fromFolder;
    };
    const Row rows[] = {
        {"platform", [](kite::PlatformCalls&) {}, 1, 1},
        {"cannot open",
         [](kite::PlatformCalls& calls) {
             calls.OpenProcess = [](DWORD, BOOL, DWORD) -> HANDLE { return nullptr; };
         },
         1, 0},
        {"cannot read the path",
         [](kite::PlatformCalls& calls) {
             calls.GetModuleFileNameExA = [](HANDLE, HMODULE, LPSTR, DWORD) -> DWORD { return 0; };
         },
         1, 0},
    };
    for (const Row& row : rows) {
        kitetest::PlatformOverride platform;
        row.arrange(platform.calls());
        EXPECT_EQ(GetCountOfTwInstances(nullptr), row.all) << row.what;
        EXPECT_EQ(GetCountOfTwInstances(folder.path().c_str()), row.fromFolder) << row.what;
    }
}

}  // namespace
