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

}  // namespace
