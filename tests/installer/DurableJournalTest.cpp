#include "installer/DurableJournal.h"
#include "installer/KiteInstaller.h"

#include <gtest/gtest.h>

namespace {

// Records of the text, written as "<code> <source> <destination>", oldest first.
std::vector<std::string> Pending(const std::string& text) {
    std::vector<std::string> records;
    for (const kite::ActionRecord& r : kite::ReadJournalText(text).records) {
        records.push_back(std::to_string(r.action) + " " + r.source + " " + r.destination);
    }
    return records;
}

TEST(DurableJournal, SettledRecordsAndCutLinesAreNotPending) {
    const std::string marker = "R\t2\tC:\\P\\CriticalFixes\\force_apply_kite.dat\t\n";
    const std::string aside = "R\t1\tC:\\P\\a.dll\tC:\\P\\{G}\n";
    const std::string placed = "R\t3\tC:\\P\\a.dll\t\n";
    struct Row {
        std::string text;
        std::vector<std::string> pending;
    };
    const Row rows[] = {
        {"", {}},
        {marker + aside + placed,
         {"2 C:\\P\\CriticalFixes\\force_apply_kite.dat ", "1 C:\\P\\a.dll C:\\P\\{G}",
          "3 C:\\P\\a.dll "}},
        // A copy that failed settles its own record; the rename before it stays to be undone.
        {marker + aside + placed + "S\t3\tC:\\P\\a.dll\t\n",
         {"2 C:\\P\\CriticalFixes\\force_apply_kite.dat ", "1 C:\\P\\a.dll C:\\P\\{G}"}},
        // The same file placed twice: a settled record takes the newest of the two.
        {placed + "R\t1\tC:\\P\\a.dll\tC:\\P\\{H}\n" + placed + "S\t3\tC:\\P\\a.dll\t\n",
         {"3 C:\\P\\a.dll ", "1 C:\\P\\a.dll C:\\P\\{H}"}},
        // Cut short by a crash before its change: not a record.
        {marker + "R\t1\tC:\\P\\a.dll\tC:\\P\\{G",
         {"2 C:\\P\\CriticalFixes\\force_apply_kite.dat "}},
        {"S\t3\tC:\\P\\x\t\nR\tx\ny\n", {}},
    };
    for (const Row& row : rows) EXPECT_EQ(Pending(row.text), row.pending) << row.text;

    const kite::PendingJournal flags = kite::ReadJournalText("D\nF\n" + marker + "C\n");
    EXPECT_TRUE(flags.createdFolder && flags.folderSupport && flags.committing);
    EXPECT_FALSE(kite::ReadJournalText(marker + "C").committing);
}

// A replaced file's rename and copy are announced together: the copy's record stays only when
// the rename happened, which the file under the GUID name shows.
TEST(DurableJournal, CopyOfAFileNotYetRenamedAsideIsDropped) {
    const kite::ActionRecord marker{"C:\\P\\CriticalFixes\\force_apply_kite.dat", "", 2};
    const kite::ActionRecord again{"C:\\P\\s.dll", "2", 4};
    const kite::ActionRecord aside{"C:\\P\\s.dll", "C:\\P\\{G}", 1};
    const kite::ActionRecord placed{"C:\\P\\s.dll", "", 3};
    const kite::ActionRecord otherPlaced{"C:\\P\\t.dll", "", 3};
    struct Row {
        std::vector<kite::ActionRecord> records;
        bool asideExists;
        std::size_t kept;
    };
    const Row rows[] = {
        {{marker, again, aside, placed}, false, 3},
        {{marker, again, aside, placed}, true, 4},
        {{marker, aside, otherPlaced}, false, 3},  // another file's copy
        {{marker, placed}, false, 2},              // a new file: no rename before it
        {{marker, again, aside}, false, 3},
        {{}, false, 0},
    };
    for (const Row& row : rows) {
        std::vector<kite::ActionRecord> records = row.records;
        std::vector<std::string> asked;
        const std::vector<kite::ActionRecord> dropped =
            kite::DropCopiesNotBegun(records, [&](const std::string& path) {
                asked.push_back(path);
                return row.asideExists;
            });
        ASSERT_EQ(records.size(), row.kept);
        ASSERT_EQ(dropped.size(), row.records.size() - row.kept);
        if (!dropped.empty()) EXPECT_EQ(dropped[0].source, "C:\\P\\s.dll");
        for (std::size_t i = 0; i < row.kept; ++i) {
            EXPECT_EQ(records[i].action, row.records[i].action) << i;
        }
        for (const std::string& path : asked) EXPECT_EQ(path, "C:\\P\\{G}");
    }
}

}  // namespace
