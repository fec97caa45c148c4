#include "log/ScopeLog.h"

#include "support/KiteTest.h"

namespace {

using kitetest::Trail;

class ScopeLogTest : public kitetest::LogTest {};

TEST(TimeStamp, DateDotTimeInTheClassicLocale) {
    std::tm local = {};
    local.tm_year = 2024 - 1900;
    local.tm_mon = 2;
    local.tm_mday = 5;
    local.tm_hour = 14;
    local.tm_min = 7;
    local.tm_sec = 9;
    EXPECT_EQ(kite::FormatTimeStamp(local), "2024-03-05.14:07:09");
}

TEST_F(ScopeLogTest, NestedScopesWriteWholeCrLfLinesInCompletionOrder) {
    SYSTEMTIME before;
    ::GetLocalTime(&before);
    {
        kite::ScopeLog outer("Outer::Scope");
        outer << "before " << 42 << std::endl;
        {
            kite::ScopeLog inner("Inner");
            inner << "flags " << true << false << std::endl;
        }
        outer << "after" << std::endl;
    }
    const std::string inner = Trail("Inner", "flags 10\r\n");
    EXPECT_EQ(ReadMaskedLog(), "<stamp> : Entering Outer::Scope\r\nbefore 42\r\n" + inner +
                                   "after\r\n<stamp> : Exiting Outer::Scope\r\n");
    char today[16];
    std::snprintf(today, sizeof today, "%04d-%02d-%02d.", before.wYear, before.wMonth, before.wDay);
    EXPECT_EQ(ReadLog().substr(0, 11), today);
}

// A traced function logs and then reports GetLastError: the log's own file calls (opening an
// existing file sets 183) must not replace the code it reports.
TEST_F(ScopeLogTest, LeavesTheThreadsLastErrorAsItFoundIt) {
    kitetest::WriteFileBytes(LogPath(), "");
    ::SetLastError(ERROR_SHARING_VIOLATION);
    {
        kite::ScopeLog log("Keeper");
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
        log << "line" << std::endl;
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
        ::SetLastError(ERROR_FILE_NOT_FOUND);
    }
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(ReadMaskedLog(), Trail("Keeper", "line\r\n"));
}

TEST_F(ScopeLogTest, FileOverTheThresholdIsEmptiedWhenTheNextScopeOpensIt) {
    struct Row {
        unsigned long long size;
        bool emptied;
    };
    for (const Row& row : {Row{104857600ULL, false}, Row{104857601ULL, true}}) {
        {
            // A sparse file of the wanted size: no 100 MiB are written.
            HANDLE file = ::CreateFileA(LogPath().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                        FILE_ATTRIBUTE_NORMAL, nullptr);
            ASSERT_NE(file, INVALID_HANDLE_VALUE);
            LARGE_INTEGER end;
            end.QuadPart = static_cast<LONGLONG>(row.size);
            ASSERT_TRUE(::SetFilePointerEx(file, end, nullptr, FILE_BEGIN) && ::SetEndOfFile(file));
            ::CloseHandle(file);
        }
        { kite::ScopeLog log("Threshold"); }

        HANDLE file = ::CreateFileA(LogPath().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        LARGE_INTEGER size;
        ::GetFileSizeEx(file, &size);
        const unsigned long long kept = row.emptied ? 0 : row.size;
        const unsigned long long trailBytes = static_cast<unsigned long long>(size.QuadPart) - kept;
        std::string tail(static_cast<std::size_t>(trailBytes), '\0');
        LARGE_INTEGER at;
        at.QuadPart = static_cast<LONGLONG>(kept);
        DWORD read = 0;
        ::SetFilePointerEx(file, at, nullptr, FILE_BEGIN);
        ::ReadFile(file, &tail[0], static_cast<DWORD>(tail.size()), &read, nullptr);
        ::CloseHandle(file);
        EXPECT_EQ(kitetest::MaskStamps(tail), Trail("Threshold", "")) << row.size;
    }
}

TEST_F(ScopeLogTest, NothingIsWrittenWithoutAUsableFolder) {
    struct Row {
        const char* what;
        void (*arrange)(ScopeLogTest& test);
    };
    const Row rows[] = {
        {"no log folder",
         [](ScopeLogTest& test) { kitetest::RemoveTree(test.DataFolder() + "\\twupdate"); }},
        {"value is a number", [](ScopeLogTest& test) { test.dataPath_.SetDword(7); }},
        {"value is an expandable string",
         [](ScopeLogTest& test) {
             const std::string text = test.DataFolder();
             test.dataPath_.Set(REG_EXPAND_SZ, std::string(text.c_str(), text.size() + 1));
         }},
        {"no value", [](ScopeLogTest& test) { test.dataPath_.Delete(); }},
        {"value of 260 characters",
         [](ScopeLogTest& test) {
             test.dataPath_.SetString(test.DataFolder() +
                                      std::string(260, 'x').substr(test.DataFolder().size()));
         }},
    };
    for (const Row& row : rows) {
        kitetest::CreateFolders(DataFolder() + "\\twupdate\\log");
        dataPath_.SetString(DataFolder());
        row.arrange(*this);
        {
            kite::ScopeLog log("Silent");
            log << "discarded" << std::endl;
            EXPECT_TRUE(log.fail()) << row.what;
        }
        EXPECT_FALSE(kitetest::Exists(LogPath())) << row.what;
    }
}

}  // namespace
