#include "installer/DurableJournal.h"

#include "common/BoundedFormat.h"
#include "common/Platform.h"
#include "common/Text.h"

#include <io.h>

namespace kite {

namespace {

bool ParseRecord(const std::vector<std::string>& fields, ActionRecord& record) {
    if (fields.size() != 6 || fields[1].size() != 1 || fields[1][0] < '1' || fields[1][0] > '5') {
        return false;
    }
    record.action = static_cast<Action>(fields[1][0] - '0');
    record.source = fields[2];
    record.destination = fields[3];
    record.serverType = TextToInt(fields[4]);
    record.identity = fields[5];
    return std::to_string(record.serverType) == fields[4] && !record.source.empty();
}

// Applies one whole line; false when it is not a line this library writes.
bool ApplyLine(PendingJournal& journal, const std::string& line) {
    if (line == "F") return journal.folderSupport = true;
    if (line == "D") return journal.createdFolder = true;
    if (line == "C") return journal.committing = true;
    const std::vector<std::string> fields = SplitText(line, '\t');
    ActionRecord record;
    if ((fields[0] != "R" && fields[0] != "S") || !ParseRecord(fields, record)) return false;
    if (fields[0] == "R") {
        journal.records.push_back(record);
        return true;
    }
    for (auto it = journal.records.rbegin(); it != journal.records.rend(); ++it) {
        if (SameRecord(*it, record)) {
            journal.records.erase(std::next(it).base());
            return true;
        }
    }
    return false;
}

}  // namespace

std::string JournalLine(char kind, const ActionRecord& record) {
    return std::string(1, kind) + "\t" + std::to_string(static_cast<int>(record.action)) + "\t" +
           record.source + "\t" + record.destination + "\t" + std::to_string(record.serverType) +
           "\t" + record.identity + "\n";
}

PendingJournal ReadJournalText(const std::string& text) {
    PendingJournal journal;
    std::string::size_type start = 0;
    for (std::string::size_type end; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1) {
        if (!ApplyLine(journal, text.substr(start, end - start))) {
            journal.wellFormed = false;
            break;
        }
    }
    return journal;
}

std::vector<ActionRecord> DropCopiesNotBegun(
    std::vector<ActionRecord>& records, const std::function<bool(const std::string&)>& exists) {
    std::vector<ActionRecord> dropped;
    for (std::size_t i = 1; i < records.size(); ++i) {
        const ActionRecord& renamed = records[i - 1];
        if (records[i].action == Action::FilePlaced && renamed.action == Action::RenamedAside &&
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
    return Append(std::string(createdFolder_ ? "D\n" : "") + (folderSupport ? "F\n" : ""));
}

bool DurableJournal::Resume(const std::string& productFolder, bool createdFolder) {
    const bool opened = Open(productFolder, OPEN_EXISTING);
    createdFolder_ = createdFolder;
    return opened;
}

bool DurableJournal::Intend(const std::vector<ActionRecord>& records) {
    std::string lines;
    for (const ActionRecord& record : records) lines += JournalLine('R', record);
    return Append(lines);
}

bool DurableJournal::Settle(const std::vector<ActionRecord>& records) {
    std::string lines;
    for (const ActionRecord& record : records) lines += JournalLine('S', record);
    return Append(lines);
}

// An installer whose journal was never begun (a step called on its own) keeps its records in
// memory only; an installation refuses to start when it cannot begin one.
bool DurableJournal::Append(const std::string& lines) {
    if (!file_.valid() || lines.empty()) return true;
    ::SetFilePointer(file_.get(), 0, nullptr, FILE_END);
    DWORD written = 0;
    // On disk before the change it announces is made.
    return Platform().WriteFile(file_.get(), lines.data(), static_cast<DWORD>(lines.size()),
                                &written, nullptr) &&
           written == lines.size() && Platform().FlushFileBuffers(file_.get());
}

void DurableJournal::Finish() {
    if (!file_.valid()) return;
    file_.reset();
    Platform().DeleteFileA(path_.c_str());
    if (createdFolder_) ::RemoveDirectoryA(folder_.c_str());
}

}  // namespace kite
