#include "log/CommonFilesDataPath.h"
#include "log/ScopeLog.h"

#include "support/KiteTest.h"

namespace {

using kitetest::MaskStamps;
using kitetest::Trail;

class ScopeLogTest : public kitetest::LogTest {};

// A traced function logs and then reports GetLastError: the log's own file calls (opening an
// existing file sets 183) must not replace the code it reports.
TEST_F(ScopeLogTest, NestedScopesWriteWholeCrLfLinesAndKeepTheLastError) {
    SYSTEMTIME before;
    ::GetLocalTime(&before);
    ::SetLastError(ERROR_SHARING_VIOLATION);
    {
        kite::ScopeLog outer("Outer::Scope");
        outer << "before " << 42 << std::endl;
        {
            kite::ScopeLog inner("Inner");
            inner << "flags " << true << false << std::endl;
            EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
        }
        outer << "after" << std::endl;
        ::SetLastError(ERROR_FILE_NOT_FOUND);
    }
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(ReadMaskedLog(), "<stamp> : Entering Outer::Scope\r\nbefore 42\r\n" +
                                   Trail("Inner", "flags 10\r\n") +
                                   "after\r\n<stamp> : Exiting Outer::Scope\r\n");
    char today[16];
    std::snprintf(today, sizeof today, "%04d-%02d-%02d.", before.wYear, before.wMonth, before.wDay);
    EXPECT_EQ(ReadLog().substr(0, 11), today);
}

// A host that keeps running recreates a deleted log and follows a new data folder.
TEST_F(ScopeLogTest, NextScopeFollowsTheDataFolder) {
    { kite::ScopeLog log("First"); }
    ASSERT_TRUE(::DeleteFileA(LogPath().c_str()));
    { kite::ScopeLog log("Again"); }
    kitetest::TempFolder other("moved");
    kitetest::CreateFolders(other / "twupdate\\log");
    dataPath_.SetString(other.path());
    { kite::ScopeLog log("Second"); }
    EXPECT_EQ(ReadMaskedLog(), Trail("Again", ""));
    EXPECT_EQ(MaskStamps(kitetest::ReadFileBytes(other / "twupdate\\log\\CRITICALFIXES.LOG")),
              Trail("Second", ""));
}

// A log renamed or grown over 100 MiB while an installation runs is started afresh by
// its next scope.
TEST_F(ScopeLogTest, NextScopeStartsAFreshLogWhenTheOldIsGoneOrTooLarge) {
    const std::string path = LogPath(), old = path + ".old";
    for (const LONGLONG size : {1LL, 104857600LL, 104857601LL}) {  // 1: renamed
        ClearLog();
        {
            kite::ScopeLog outer("Outer");
            const LARGE_INTEGER end = {
                {static_cast<DWORD>(size), 0}};  // sparse: no 100 MiB written
            HANDLE file =
                ::CreateFileA(path.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, 0);
            ASSERT_TRUE(size < 2 ||
                        (::SetFilePointerEx(file, end, nullptr, 0) && ::SetEndOfFile(file)));
            ::CloseHandle(file);
            ASSERT_TRUE(size > 1 || ::MoveFileA(path.c_str(), old.c_str()));
            kite::ScopeLog inner("Inner");
        }
        const std::string log = ReadLog();
        EXPECT_EQ(MaskStamps(log.substr(
                      size == 104857600LL ? std::min<std::size_t>(size, log.size()) : 0)),
                  Trail("Inner", "") + "<stamp> : Exiting Outer\r\n")
            << size;
    }
}

// What the reader answers for each kind of stored value (a 3000-character string takes a second
// query), and which values become the log's folder: strings of fewer than 260 characters.
TEST(CommonFilesDataPath, OnlyAStringShorterThan260CharactersIsTheFolder) {
    const std::string path259 = "C:\\" + std::string(256, 'p');
    const std::tuple<DWORD, std::string, long, bool> rows[] = {
        {REG_SZ, "C:\\Data", 0, true},     {REG_SZ, path259, 0, true},
        {REG_SZ, path259 + "p", 0, false}, {REG_SZ, std::string(3000, 'x'), 0, false},
        {REG_DWORD, "\1\1\1", -6, false},  {REG_EXPAND_SZ, "C:\\Data", -6, false},
        {0 /* no value */, "", 3, false}};
    kitetest::RegistryValue value(kitetest::kCommonKey, "CommonFilesDataPath");
    for (const auto& [type, text, status, folder] : rows) {
        type ? value.Set(type, std::string(text.c_str(), text.size() + 1)) : value.Delete();
        const auto reader = kite::ProductParameterReader::CreateForCommonBranch();
        const char* read = nullptr;
        EXPECT_EQ(reader->GetParameter("CommonFilesDataPath", &read), status);
        EXPECT_EQ(read ? read : "<none>", status == 0 ? text : "<none>") << text.size();
        char area[kite::kWorkAreaBytes] = {};
        const char* found = kite::GetCommonFilesDataPath(area);
        EXPECT_EQ(found == area + 260 ? found : "<none>", folder ? text : "<none>") << text.size();
    }
}

}  // namespace
