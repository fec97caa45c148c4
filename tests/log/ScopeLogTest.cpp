#include "log/CommonFilesDataPath.h"
#include "log/ScopeLog.h"

#include "support/KiteTest.h"

#include <filesystem>

namespace {

using kitetest::MaskStamps;
using kitetest::Trail;

class ScopeLogTest : public kitetest::LogTest {};

// A traced function logs and then reports GetLastError: the log's own file calls (opening an
// existing file sets 183) must not replace the code it reports.
TEST_F(ScopeLogTest, NestedScopesWriteWholeCrLfLinesKeepTheLastErrorAndFollowTheFolder) {
    SYSTEMTIME now;
    ::GetLocalTime(&now);
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
    std::snprintf(today, sizeof today, "%04d-%02d-%02d.", now.wYear, now.wMonth, now.wDay);
    EXPECT_EQ(ReadLog().substr(0, 11), today);

    // A host that keeps running follows a new data folder.
    kitetest::TempFolder other("moved");
    kitetest::CreateFolders(other / "twupdate\\log");
    dataPath_.SetString(other.path());
    { kite::ScopeLog log("Moved"); }
    EXPECT_EQ(MaskStamps(kitetest::ReadFileBytes(other / "twupdate\\log\\CRITICALFIXES.LOG")),
              Trail("Moved", ""));
}

// A log renamed (size 1 here) or grown over 100 MiB while an installation runs is started afresh
// by its next scope; one of exactly 100 MiB is appended to. The file is sparse.
TEST_F(ScopeLogTest, NextScopeStartsAFreshLogWhenTheOldIsGoneOrTooLarge) {
    const std::string path = LogPath();
    for (const LONGLONG size : {1LL, 104857600LL, 104857601LL}) {
        ClearLog();
        {
            kite::ScopeLog outer("Outer");
            namespace fs = std::filesystem;
            size > 1 ? fs::resize_file(path, size) : fs::rename(path, path + ".old");
            kite::ScopeLog inner("Inner");
        }
        const std::string log = ReadLog();
        const std::size_t kept = std::min<std::size_t>(size == 104857600LL ? size : 0, log.size());
        const std::string added = log.substr(kept, 1000);
        EXPECT_EQ(log.size(), kept + added.size()) << size;
        EXPECT_EQ(MaskStamps(added), Trail("Inner", "") + "<stamp> : Exiting Outer\r\n") << size;
    }
}

// What the reader answers (a 3000-character string takes a second query), and which values
// become the log's folder: strings of fewer than 260 characters.
TEST(CommonFilesDataPath, OnlyAStringShorterThan260CharactersIsTheFolder) {
    const std::tuple<DWORD, std::size_t, long, bool> rows[] = {{REG_SZ, 259, 0, true},
                                                               {REG_SZ, 260, 0, false},
                                                               {REG_SZ, 3000, 0, false},
                                                               {REG_EXPAND_SZ, 259, -6, false}};
    kitetest::RegistryValue value(kitetest::kCommonKey, "CommonFilesDataPath");
    for (const auto& [type, length, status, folder] : rows) {
        const std::string text = "C:\\" + std::string(length - 3, 'p');
        value.Set(type, std::string(text.c_str(), length + 1));
        const auto reader = kite::ProductParameterReader::CreateForCommonBranch();
        const char* read = nullptr;
        EXPECT_EQ(reader->GetParameter("CommonFilesDataPath", &read), status);
        EXPECT_EQ(read ? read : "<none>", status == 0 ? text : "<none>") << length;
        char area[kite::kWorkAreaBytes] = {};
        const char* found = kite::GetCommonFilesDataPath(area);
        EXPECT_EQ(found == area + 260 ? found : "<none>", folder ? text : "<none>");
    }
}

}  // namespace
