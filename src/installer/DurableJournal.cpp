#include "installer/DurableJournal.h"

#include "common/BoundedFormat.h"
#include "common/Platform.h"
#include "common/Text.h"
#include "installer/KiteInstaller.h"

#include <io.h>

#include <sstream>

namespace kite {

namespace {

std::vector<std::string> Fields(const std::string& line) {
    std::vector<std::string> fields;
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type tab = line.find('\t', start);
        fields.push_back(line.substr(start, tab - start));
        if (tab == std::string::npos) return fields;
        start = tab + 1;
    }
}

bool SameRecord(const ActionRecord& a, const ActionRecord& b) {
    return a.action == b.action && a.source == b.source && a.destination == b.destination;
}

}  // namespace

std::string JournalLine(char kind, const ActionRecord& record) {
    return std::string(1, kind) + "\t" + std::to_string(record.action) + "\t" + record.source +
           "\t" + record.destination + "\n";
}

PendingJournal ReadJournalText(const std::string& text) {
    PendingJournal journal;
    std::string::size_type start = 0;
    for (std::string::size_type end; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1) {
        const std::vector<std::string> fields = Fields(text.substr(start, end - start));
        if (fields[0] == "F") journal.folderSupport = true;
        if (fields[0] == "D") journal.createdFolder = true;
        if (fields[0] == "C") journal.committing = true;
        if (fields.size() != 4 || (fields[0] != "R" && fields[0] != "S")) continue;
        const ActionRecord record{fields[2], fields[3], TextToInt(fields[1])};
        if (fields[0] == "R") {
            journal.records.push_back(record);
            continue;
        }
        for (auto it = journal.records.rbegin(); it != journal.records.rend(); ++it) {
            if (SameRecord(*it, record)) {
                journal.records.erase(std::next(it).base());
                break;
            }
        }
    }
    return journal;
}

std::vector<ActionRecord> DropCopiesNotBegun(
    std::vector<ActionRecord>& records, const std::function<bool(const std::string&)>& exists) {
    std::vector<ActionRecord> dropped;
    for (std::size_t i = 1; i < records.size(); ++i) {
        const ActionRecord& renamed = records[i - 1];
        if (records[i].action == kFilePlaced && renamed.action == kRenamedAside &&
            renamed.source == records[i].source && !exists(renamed.destination)) {
            dropped.push_back(records[i]);
            records.erase(records.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    return dropped;
}

std::string JournalPath(const std::string& productFolder) {
    char path[260];
    FormatBounded(path, "%s\\CriticalFixes\\%s", productFolder.c_str(), kJournalFileName);
    return path;
}

bool DurableJournal::Open(const std::string& productFolder, DWORD disposition) {
    path_ = JournalPath(productFolder);
    folder_ = path_.substr(0, path_.rfind('\\'));
    // Only the CriticalFixes folder itself: a product folder that does not exist has nothing to
    // protect, and is not to be made here.
    createdFolder_ =
        _access(folder_.c_str(), 0) != 0 && ::CreateDirectoryA(folder_.c_str(), nullptr);
    file_.reset(::CreateFileA(path_.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, disposition,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    return file_.valid();
}

bool DurableJournal::Begin(const std::string& productFolder, bool folderSupport) {
    if (!Open(productFolder, CREATE_ALWAYS)) return false;
    if (createdFolder_) Append("D\n");
    if (folderSupport) Append("F\n");
    return true;
}

bool DurableJournal::Resume(const std::string& productFolder, bool createdFolder) {
    const bool opened = Open(productFolder, OPEN_EXISTING);
    createdFolder_ = createdFolder;
    return opened;
}

void DurableJournal::Intend(const ActionRecord& record) { Append(JournalLine('R', record)); }

void DurableJournal::Intend(const std::vector<ActionRecord>& records) {
    std::string lines;
    for (const ActionRecord& record : records) lines += JournalLine('R', record);
    Append(lines);
}

void DurableJournal::Append(const std::string& line) {
    if (!file_.valid()) return;
    ::SetFilePointer(file_.get(), 0, nullptr, FILE_END);
    DWORD written = 0;
    Platform().WriteFile(file_.get(), line.data(), static_cast<DWORD>(line.size()), &written,
                         nullptr);
    // On disk before the change it announces is made.
    Platform().FlushFileBuffers(file_.get());
}

void DurableJournal::Finish() {
    if (!file_.valid()) return;
    file_.reset();
    Platform().DeleteFileA(path_.c_str());
    if (createdFolder_) ::RemoveDirectoryA(folder_.c_str());
}

}  // namespace kite
