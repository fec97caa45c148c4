#include "KITEUpdate.h"

#include "support/KiteTest.h"

#include <string>

namespace {

using kitetest::Trail;

class ApplicabilityTest : public kitetest::LogTest {
  public:
    kitetest::KiteDll dll_;
    IsKITEApplicableFn applicable_ = dll_.Get<IsKITEApplicableFn>("IsKITEApplicable");
    IsKITEToBeForceAppliedFn force_ = dll_.Get<IsKITEToBeForceAppliedFn>("IsKITEToBeForceApplied");
};

TEST_F(ApplicabilityTest, ExportsAreFoundByNameAndByOrdinal) {
    ASSERT_NE(dll_.ByName("IsKITEApplicable"), nullptr);
    EXPECT_EQ(dll_.ByOrdinal(5), dll_.ByName("IsKITEApplicable"));
    ASSERT_NE(dll_.ByName("IsKITEToBeForceApplied"), nullptr);
    EXPECT_EQ(dll_.ByOrdinal(6), dll_.ByName("IsKITEToBeForceApplied"));
}

TEST_F(ApplicabilityTest, SlipstreamsListDecidesAndIsLoggedWordForWord) {
    struct Row {
        const char* settings;  // nullptr: no settings file at all
        int level;
        bool applies;
        std::string logged;  // the value as the log shows it
    };
    const std::string cut = [] {
        std::string list;
        for (int i = 0; i < 66; ++i) list += "R1,";
        return list + "R9";  // 200 characters: the reader keeps 199, so "R9" becomes "R"
    }();
    const Row rows[] = {
        {"R3,R5", 5, true, "R3,R5"},
        {"R3,R5", 4, false, "R3,R5"},
        {"R3,,R5", 5, true, "R3,,R5"},
        {",R3,R5,", 3, true, ",R3,R5,"},
        {"3,5", 3, false, "3,5"},
        {"3,5", 0, true, "3,5"},
        {"R17", 17, true, "R17"},
        {"17", 7, true, "17"},
        {"R-2", -2, true, "R-2"},
        {"", 0, false, ""},
        {nullptr, 0, false, ""},
        {cut.c_str(), 9, false, cut.substr(0, 199)},
        {cut.c_str(), 0, true, cut.substr(0, 199)},
    };
    for (const Row& row : rows) {
        kitetest::TempFolder package("package");
        const std::string settings = package / "kite.ini";
        if (row.settings != nullptr) {
            kitetest::WriteFileBytes(settings, std::string("[KITEApplicability]\r\nSlipstreams=") +
                                                   row.settings + "\r\n");
        }
        kitetest::RemoveTree(DataFolder() + "\\twupdate\\log");
        kitetest::CreateFolders(DataFolder() + "\\twupdate\\log");

        EXPECT_EQ(applicable_(row.level, settings), row.applies)
            << row.settings << " @" << row.level;
        EXPECT_EQ(ReadMaskedLog(),
                  Trail("IsKITEApplicable", "Applicability = " + row.logged +
                                                "\r\nSlipstream = " + std::to_string(row.level) +
                                                "\r\nReturn value : " + (row.applies ? "1" : "0") +
                                                "\r\n"))
            << row.settings << " @" << row.level;
    }
}

TEST_F(ApplicabilityTest, ForceMarkerPresenceAloneCounts) {
    struct Row {
        const char* what;
        void (*arrange)(const std::string& product);
        int forced;
    };
    const Row rows[] = {
        {"empty marker",
         [](const std::string& product) {
             kitetest::CreateFolders(product + "\\CriticalFixes");
             kitetest::WriteFileBytes(product + "\\CriticalFixes\\force_apply_kite.dat", "");
         },
         1},
        {"marker that is a folder",
         [](const std::string& product) {
             kitetest::CreateFolders(product + "\\CriticalFixes\\force_apply_kite.dat");
         },
         1},
        {"no marker",
         [](const std::string& product) { kitetest::CreateFolders(product + "\\CriticalFixes"); },
         0},
        {"no product folder", [](const std::string& product) { kitetest::RemoveTree(product); }, 0},
    };
    for (const Row& row : rows) {
        kitetest::TempFolder product("product");
        row.arrange(product.path());
        kitetest::RemoveTree(DataFolder() + "\\twupdate\\log");
        kitetest::CreateFolders(DataFolder() + "\\twupdate\\log");

        EXPECT_EQ(force_(product.path().c_str()), row.forced) << row.what;
        EXPECT_EQ(ReadMaskedLog(), Trail("IsKITEToBeForceApplied",
                                         "Return value = " + std::to_string(row.forced) + "\r\n"))
            << row.what;
    }
}

TEST_F(ApplicabilityTest, NullFolderIsAnsweredWithZeroAndALogLine) {
    EXPECT_EQ(force_(nullptr), 0);
    EXPECT_EQ(ReadMaskedLog(), Trail("IsKITEToBeForceApplied",
                                     "Invalid argument: folder is null\r\nReturn value = 0\r\n"));
}

TEST_F(ApplicabilityTest, MissingLogFolderChangesNoAnswer) {
    kitetest::TempFolder package("package");
    kitetest::WriteFileBytes(package / "kite.ini", "[KITEApplicability]\r\nSlipstreams=R5\r\n");
    kitetest::RemoveTree(DataFolder() + "\\twupdate");
    EXPECT_TRUE(applicable_(5, package / "kite.ini"));
    EXPECT_FALSE(applicable_(6, package / "kite.ini"));
    EXPECT_FALSE(kitetest::Exists(DataFolder() + "\\twupdate"));
}

// The marker path has room for 260 characters; a longer one ends the host process rather than
// testing a truncated path.
TEST_F(ApplicabilityTest, MarkerPathOfMoreThan260CharactersIsFatal) {
    const std::string suffix = "\\CriticalFixes\\force_apply_kite.dat";
    const std::string longest = "C:\\" + std::string(260 - suffix.size() - 3, 'f');
    EXPECT_EQ(force_(longest.c_str()), 0);
    const std::string tooLong = longest + "f";
    EXPECT_EXIT(force_(tooLong.c_str()), ::testing::ExitedWithCode(static_cast<int>(0xC0000417)),
                "");
}

}  // namespace
