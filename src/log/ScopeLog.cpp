#include "log/ScopeLog.h"

#include "common/BoundedFormat.h"
#include "common/Handles.h"
#include "log/CommonFilesDataPath.h"

#include <mutex>

namespace kite {

namespace {

// Writers in other processes append to the same file through their own handles. Windows makes
// an append atomic, Wine does not: it computes the end and writes there, so two writers can land
// on the same offset and one line is lost. A one-byte lock far beyond any real data serialises
// the writes for the length of one line without ever blocking a reader of the log.
constexpr DWORD kLineLockOffsetLow = 0xFFFFFFFEUL;
constexpr DWORD kLineLockOffsetHigh = 0x7FFFFFFFUL;

// Logging never changes an operation's outcome, the thread's last error code included: a traced
// function reports GetLastError after writing its lines, and the log's own file calls (an open
// of an existing file sets 183) must not stand in for the failure it reports.
class LastErrorKeeper {
  public:
    LastErrorKeeper() : error_(::GetLastError()) {}
    ~LastErrorKeeper() { ::SetLastError(error_); }
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

  private:
    DWORD error_;
};

struct FileAtPath {
    bool exists;
    unsigned long long size;
};

// A stat by path, answered without opening the file.
FileAtPath LookAt(const char* path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!::GetFileAttributesExA(path, GetFileExInfoStandard, &data)) return {false, 0};
    return {true, (static_cast<unsigned long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow};
}

// The one log handle and data folder of the process, shared by every scope of every thread; its
// lock also keeps the process's own lines whole, so the file's line lock only ever waits for
// other processes.
class SharedLog {
  public:
    bool Enter();
    void Leave();
    bool Append(const std::string& text);

  private:
    bool HandleNamesFileAt(const FileAtPath& file) const;
    bool TakeLineLock(OVERLAPPED* lock);

    std::mutex mutex_;
    CommonFilesDataPathWatch folder_;
    std::string path_;
    UniqueHandle file_;
    int scopes_ = 0;
    bool lockGivenUp_ = false;
};

// The file at the path is still the handle's when the handle's file has a name left and both
// report the same size. A file put in its place (the log renamed aside and another started)
// differs in size as soon as either has been written; a size that moved because another process
// appended in between only costs one reopening.
bool SharedLog::HandleNamesFileAt(const FileAtPath& file) const {
    FILE_STANDARD_INFO info;
    return file_ && file.exists &&
           ::GetFileInformationByHandleEx(file_.get(), FileStandardInfo, &info, sizeof info) &&
           !info.DeletePending && info.NumberOfLinks > 0 &&
           static_cast<unsigned long long>(info.EndOfFile.QuadPart) == file.size;
}

bool SharedLog::Enter() {
    const std::lock_guard<std::mutex> guard(mutex_);
    const char* folder = folder_.Current();
    // Without a folder there is nothing that could be opened; the scope stays silent.
    if (folder == nullptr) return false;
    char path[kPathChars];
    FormatBounded(path, "%s\\twupdate\\log\\CRITICALFIXES.LOG", folder);
    const FileAtPath file = LookAt(path);
    const bool truncate = file.size > kLogTruncateAboveBytes;
    if (truncate || path_ != path || !HandleNamesFileAt(file)) {
        path_ = path;
        // GENERIC_WRITE (not append-only access) because Windows requires write access for
        // LockFileEx. Deleting and renaming stay open to others while the handle is held.
        file_.reset(::CreateFileA(
            path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
            truncate ? CREATE_ALWAYS : OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    }
    if (!file_) return false;
    ++scopes_;
    return true;
}

void SharedLog::Leave() {
    const std::lock_guard<std::mutex> guard(mutex_);
    // Between the host's calls the file is not held open: it can be moved or its folder removed.
    if (--scopes_ == 0) file_.reset();
}

bool SharedLog::TakeLineLock(OVERLAPPED* lock) {
    const ULONGLONG deadline = ::GetTickCount64() + (lockGivenUp_ ? 0 : kLineLockPatienceMs);
    for (;;) {
        if (::LockFileEx(file_.get(), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0,
                         lock)) {
            lockGivenUp_ = false;
            return true;
        }
        if (::GetTickCount64() >= deadline) {
            lockGivenUp_ = true;
            return false;
        }
        ::Sleep(1);
    }
}

bool SharedLog::Append(const std::string& text) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!file_) return false;
    OVERLAPPED lock = {};
    lock.Offset = kLineLockOffsetLow;
    lock.OffsetHigh = kLineLockOffsetHigh;
    const bool locked = TakeLineLock(&lock);
    // Both offset words at 0xFFFFFFFF: write at the current end of the file.
    OVERLAPPED atEnd = {};
    atEnd.Offset = 0xFFFFFFFFUL;
    atEnd.OffsetHigh = 0xFFFFFFFFUL;
    DWORD written = 0;
    const bool ok =
        ::WriteFile(file_.get(), text.data(), static_cast<DWORD>(text.size()), &written, &atEnd) &&
        written == text.size();
    if (locked) ::UnlockFileEx(file_.get(), 0, 1, 0, &lock);
    return ok;
}

// Goes with the library: a host that unloads it keeps no key, event or file of the log.
SharedLog& TheLog() {
    static SharedLog log;
    return log;
}

}  // namespace

bool LogFileBuffer::Open() {
    open_ = TheLog().Enter();
    return open_;
}

void LogFileBuffer::Close() {
    sync();
    if (open_) TheLog().Leave();
    open_ = false;
}

void LogFileBuffer::Put(char c) {
    if (c == '\n') pending_.push_back('\r');
    pending_.push_back(c);
}

LogFileBuffer::int_type LogFileBuffer::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    Put(traits_type::to_char_type(c));
    return c;
}

std::streamsize LogFileBuffer::xsputn(const char* text, std::streamsize count) {
    for (std::streamsize i = 0; i < count; ++i) Put(text[i]);
    return count;
}

int LogFileBuffer::sync() {
    if (pending_.empty()) return 0;
    const LastErrorKeeper keeper;
    const bool written = open_ && TheLog().Append(pending_);
    pending_.clear();
    return written ? 0 : -1;
}

std::string FormatTimeStamp(const std::tm& localTime) {
    char stamp[80] = {};
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d.%X", &localTime);
    return stamp;
}

ScopeLog::ScopeLog(std::string scope) : std::ostream(nullptr), scope_(std::move(scope)) {
    const LastErrorKeeper keeper;
    rdbuf(&file_);
    if (file_.Open()) {
        clear();
    } else {
        setstate(std::ios_base::failbit);
    }
    WriteMarkerLine(" : Entering ");
}

ScopeLog::~ScopeLog() {
    const LastErrorKeeper keeper;
    try {
        WriteMarkerLine(" : Exiting ");
        file_.Close();
    } catch (...) {
        // A destructor runs during unwinding too; the log must never add a second exception.
    }
}

void ScopeLog::WriteMarkerLine(const char* marker) {
    if (fail()) return;
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_s(&local, &now);
    *this << FormatTimeStamp(local) << marker << scope_ << std::endl;
}

}  // namespace kite
