#include "log/ScopeLog.h"

#include "common/BoundedFormat.h"
#include "log/CommonFilesDataPath.h"

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

unsigned long long FileSizeOf(const char* path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!::GetFileAttributesExA(path, GetFileExInfoStandard, &data)) return 0;
    return (static_cast<unsigned long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

}  // namespace

bool LogFileBuffer::Open(const char* path, bool truncate) {
    // GENERIC_WRITE (not append-only access) because Windows requires write access for LockFileEx.
    file_.reset(::CreateFileA(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              truncate ? CREATE_ALWAYS : OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                              nullptr));
    return file_.valid();
}

bool LogFileBuffer::Close() {
    const bool flushed = sync() == 0;
    const bool closed = !file_.valid() || ::CloseHandle(file_.release());
    return flushed && closed;
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
    const bool written = AppendAtEnd(pending_);
    pending_.clear();
    return written ? 0 : -1;
}

bool LogFileBuffer::AppendAtEnd(const std::string& text) {
    if (!file_.valid()) return false;
    OVERLAPPED lock = {};
    lock.Offset = kLineLockOffsetLow;
    lock.OffsetHigh = kLineLockOffsetHigh;
    const bool locked = ::LockFileEx(file_.get(), LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &lock);
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

std::string FormatTimeStamp(const std::tm& localTime) {
    char stamp[80] = {};
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d.%X", &localTime);
    return stamp;
}

ScopeLog::ScopeLog(std::string scope) : std::ostream(nullptr), scope_(std::move(scope)) {
    const LastErrorKeeper keeper;
    rdbuf(&file_);
    char workArea[kWorkAreaBytes] = {};
    const char* folder = GetCommonFilesDataPath(workArea);
    // Without a folder there is nothing that could be opened; the log stays silent.
    bool opened = false;
    if (folder != nullptr) {
        char path[kPathChars];
        FormatBounded(path, "%s\\twupdate\\log\\CRITICALFIXES.LOG", folder);
        opened = file_.Open(path, FileSizeOf(path) > kLogTruncateAboveBytes);
    }
    if (opened) {
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
    } catch (...) {
        // A destructor runs during unwinding too; the log must never add a second exception.
    }
    if (!file_.Close()) setstate(std::ios_base::failbit);
}

void ScopeLog::WriteMarkerLine(const char* marker) {
    if (fail()) return;
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_s(&local, &now);
    *this << FormatTimeStamp(local) << marker << scope_ << std::endl;
}

}  // namespace kite
