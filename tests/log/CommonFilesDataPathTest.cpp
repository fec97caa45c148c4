#include "log/CommonFilesDataPath.h"

#include "support/KiteTest.h"

#include <cstring>

namespace {

using kitetest::RegistryValue;

class CommonFilesDataPathTest : public ::testing::Test {
  protected:
    RegistryValue value_{kitetest::kCommonKey, "CommonFilesDataPath"};
};

TEST_F(CommonFilesDataPathTest, ReaderStatusForEachKindOfStoredValue) {
    struct Row {
        const char* what;
        DWORD type;  // 0: no value at all
        std::string bytes;
        long status;
    };
    const std::string longText(3000, 'x');
    const Row rows[] = {
        {"string", REG_SZ, std::string("C:\\Data", 8), 0},
        {"string over 1024 bytes", REG_SZ, longText + '\0', 0},
        {"number", REG_DWORD, std::string(4, '\1'), -6},
        {"expandable string", REG_EXPAND_SZ, std::string("C:\\Data", 8), -6},
        {"missing", 0, "", 3},
    };
    for (const Row& row : rows) {
        if (row.type == 0) {
            value_.Delete();
        } else {
            value_.Set(row.type, row.bytes);
        }
        auto reader = kite::ProductParameterReader::CreateForCommonBranch();
        ASSERT_TRUE(reader) << row.what;
        const char* text = nullptr;
        EXPECT_EQ(reader->GetParameter("CommonFilesDataPath", &text), row.status) << row.what;
        if (row.status == 0) {
            ASSERT_NE(text, nullptr);
            EXPECT_EQ(std::string(text), std::string(row.bytes.c_str())) << row.what;
        } else {
            EXPECT_EQ(text, nullptr) << row.what;
        }
    }
}

TEST_F(CommonFilesDataPathTest, LookupCopiesPathsShorterThan260CharactersOnly) {
    for (std::size_t length : {3, 259, 260, 1500}) {
        const std::string text = "C:\\" + std::string(length - 3, 'p');
        value_.SetString(text);
        char workArea[kite::kWorkAreaBytes] = {};
        const char* found = kite::GetCommonFilesDataPath(workArea);
        if (length < 260) {
            ASSERT_EQ(found, workArea + 260) << length;
            EXPECT_EQ(std::string(found), text);
        } else {
            EXPECT_EQ(found, nullptr) << length;
        }
    }
}

}  // namespace
