#include "log/ScopeLog.h"

#include "common/BoundedFormat.h"
#include "common/Handles.h"
#include "log/CommonFilesDataPath.h"

#include <mutex>

namespace kite {

namespace {

// Windows makes a write through a handle that may only append atomic; Wine does not: it
// computes the end and writes there, so two writers can land on the same offset and one line is
// lost. Writers therefore take a lock word, the id of its holder's process, in a small section
// shared by every process that logs. Taking and releasing it costs no call into the kernel, so a
// line stays one write; a lock byte of the file cost two round trips to the Wine server a line.
class LineLock {
  public:
    LineLock();
    LineLock(const LineLock&) = delete;
    LineLock& operator=(const LineLock&) = delete;

    bool Take(bool patient);
    void Release();

  private:
    bool TakeFromEndedHolder(LONG holder);

    UniqueHandle section_;
    UniqueView view_;
    volatile LONG* word_ = nullptr;
    const LONG self_ = static_cast<LONG>(::GetCurrentProcessId());
};

// Without the section (it cannot be created or opened here, or the name belongs to something
// else) lines are written without the lock, as after a wait that ran out.
LineLock::LineLock()
    : section_(::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(LONG),
                                    kLineLockName)) {
    if (section_) view_.reset(::MapViewOfFile(section_.get(), FILE_MAP_WRITE, 0, 0, sizeof(LONG)));
    word_ = static_cast<volatile LONG*>(view_.get());
}

bool LineLock::Take(bool patient) {
    if (word_ == nullptr) return false;
    const ULONGLONG deadline = ::GetTickCount64() + (patient ? kLineLockPatienceMs : 0);
    for (int tries = 0;; ++tries) {
        const LONG holder = ::InterlockedCompareExchange(word_, self_, 0);
        if (holder == 0) return true;
        if (::GetTickCount64() >= deadline) return TakeFromEndedHolder(holder);
        // A line is held for microseconds: yield first, then sleep.
        if (tries < 64) {
            ::SwitchToThread();
        } else {
            ::Sleep(1);
        }
    }
}

// A writer killed between taking and releasing the word leaves it set for as long as any process
// keeps the section; the next writer whose wait runs out takes it over once that process has
// ended. A holder that cannot be looked at counts as alive.
bool LineLock::TakeFromEndedHolder(LONG holder) {
    const UniqueHandle process(::OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(holder)));
    const bool ended = process ? ::WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0
                               : ::GetLastError() == ERROR_INVALID_PARAMETER;
    return ended && ::InterlockedCompareExchange(word_, self_, holder) == holder;
}

void LineLock::Release() {
    if (word_ != nullptr) ::InterlockedCompareExchange(word_, 0, self_);
}

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

    std::mutex mutex_;
    LineLock lineLock_;
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
        // Deleting and renaming stay open to others while the handle is held.
        const DWORD sharing = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        // Emptying needs write access, which would make every write land at the file pointer.
        if (truncate) {
            const UniqueHandle emptied(::CreateFileA(path, GENERIC_WRITE, sharing, nullptr,
                                                     TRUNCATE_EXISTING, FILE_ATTRIBUTE_NORMAL,
                                                     nullptr));
        }
        // Append-only access: every write goes to the end of the file without an offset, so
        // without an OVERLAPPED, which would cost Wine a round trip to its server per line.
        file_.reset(::CreateFileA(path, FILE_APPEND_DATA | SYNCHRONIZE, sharing, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
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

bool SharedLog::Append(const std::string& text) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!file_) return false;
    const bool locked = lineLock_.Take(!lockGivenUp_);
    lockGivenUp_ = !locked;
    DWORD written = 0;
    const bool ok =
        ::WriteFile(file_.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
        written == text.size();
    if (locked) lineLock_.Release();
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
