#include "log/CommonFilesDataPath.h"
#include "log/ScopeLog.h"

#include "support/KiteTest.h"

#include <filesystem>

namespace {

using namespace kitetest;

// Between Outer's first line and Inner the log is renamed (as good as deleted), grown to 100 MiB
// (appended to) or over it (started afresh), or CommonFilesDataPath names another folder. A
// traced function reports GetLastError after logging: the log's own calls must not change it.
TEST_F(LogTest, ScopesWriteWholeCrLfLinesKeepTheLastErrorAndFollowTheLog) {
    const auto today = [] {
        SYSTEMTIME now;
        ::GetLocalTime(&now);
        char date[16];
        std::snprintf(date, sizeof date, "%04d-%02d-%02d.", now.wYear, now.wMonth, now.wDay);
        return std::string(date);
    };
    const std::string path = LogPath(), moved = folder_ / "moved";
    CreateFolders(moved + "\\twupdate\\log");
    for (const std::string change : {"", "rename", "100MiB", "100MiB+1", "moved"}) {
        ClearLog();
        const std::string day = today();
        const std::size_t kept = change == "100MiB" ? 104857600 : 0;
        {
            kite::ScopeLog outer("Outer");
            outer << "before " << 42 << std::endl;
            if (change == "rename") std::filesystem::rename(path, path + ".old");
            if (change[0] == '1') std::filesystem::resize_file(path, 104857600 + !kept);
            if (change == "moved") dataPath_.SetString(moved);
            ::SetLastError(ERROR_SHARING_VIOLATION);
            kite::ScopeLog inner("Inner");
            inner << "flags " << true << false << std::endl;
            EXPECT_EQ(::GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
        }
        const std::string log =
            ReadFileBytes(change == "moved" ? moved + "\\twupdate\\log\\CRITICALFIXES.LOG" : path);
        // The day may turn between the stamp and the look at the clock.
        EXPECT_TRUE(log.substr(0, 11) == day || log.substr(0, 11) == today()) << log.substr(0, 11);
        EXPECT_EQ(MaskStamps(log.substr(std::min(kept, log.size()), 1000)),
                  (change.empty() ? "<stamp> : Entering Outer\r\nbefore 42\r\n" : "") +
                      Trail("Inner", "flags 10\r\n") + "<stamp> : Exiting Outer\r\n")
            << change;
    }
}

// The reader takes a second query for a 3000-character string.
TEST_F(LogTest, OnlyAStringShorterThan260CharactersIsTheDataFolder) {
    const std::tuple<DWORD, std::size_t, long> rows[] = {
        {REG_SZ, 259, 0}, {REG_SZ, 260, 0}, {REG_SZ, 3000, 0}, {REG_EXPAND_SZ, 259, -6}};
    for (const auto& [type, length, status] : rows) {
        const std::string text = "C:\\" + std::string(length - 3, 'p');
        dataPath_.Set(type, std::string(text.c_str(), length + 1));
        const auto reader = kite::ProductParameterReader::CreateForCommonBranch();
        const char* read = nullptr;
        EXPECT_EQ(reader->GetParameter("CommonFilesDataPath", &read), status);
        EXPECT_EQ(read ? read : "<none>", status == 0 ? text : "<none>") << length;
        char area[kite::kWorkAreaBytes] = {};
        const char* found = kite::GetCommonFilesDataPath(area);
        EXPECT_EQ(found == area + 260 ? found : "<none>",
                  length < 260 && !status ? text : "<none>");
    }
}

}  // namespace
