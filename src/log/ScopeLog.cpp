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

// The log is shared with every reader and writer, deleting and renaming included, while it is
// held.
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The log's folders and file below the data folder. The data folder is the administrator's
// choice; below it, ordinary users can often create files and folders (the data folder typically
// sits under C:\ProgramData), and so plant a link where the log or one of its folders belongs.
constexpr char kUpdateFolder[] = "\\twupdate";
constexpr char kLogFolder[] = "\\twupdate\\log";
constexpr char kLogFile[] = "\\twupdate\\log\\CRITICALFIXES.LOG";

// Room for a final path: its "\\?\" or "\\?\UNC\" prefix, a folder of 259 characters and the
// log's names below it.
constexpr DWORD kFinalPathChars = 2 * kPathChars;

bool FinalPathOf(HANDLE handle, char (&path)[kFinalPathChars], DWORD* chars) {
    *chars = ::GetFinalPathNameByHandleA(handle, path, kFinalPathChars,
                                         FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    return *chars > 0 && *chars < kFinalPathChars;
}

// File names compare as the file system compares them: without regard to case.
bool SameNames(const char* a, DWORD aChars, const char* b, int bChars) {
    return ::CompareStringA(LOCALE_INVARIANT, NORM_IGNORECASE, a, static_cast<int>(aChars), b,
                            bChars) == CSTR_EQUAL;
}

// Where the log's folders and file are once every link is resolved: below the data folder's own
// final path (an administrator may reach the data folder through a link of theirs), under exactly
// the names that the log asks for. A handle's final path is the file it holds, so a link anywhere
// below the data folder shows as another place, also where Wine follows a link that Windows would
// open itself. The data folder's final path is kept while its text stays, and taken again when a
// handle does not match it.
class LogPlace {
  public:
    bool Holds(HANDLE handle, const char* folder, const char* below);

  private:
    bool Matches(const char* path, DWORD chars, const char* below) const;
    void Refresh(const char* folder);

    std::string folder_;
    std::string finalFolder_;
};

bool LogPlace::Holds(HANDLE handle, const char* folder, const char* below) {
    char path[kFinalPathChars];
    DWORD chars = 0;
    if (!FinalPathOf(handle, path, &chars)) return false;
    if (folder_ == folder && Matches(path, chars, below)) return true;
    Refresh(folder);
    return Matches(path, chars, below);
}

bool LogPlace::Matches(const char* path, DWORD chars, const char* below) const {
    const DWORD folderChars = static_cast<DWORD>(finalFolder_.size());
    return folderChars > 0 && chars > folderChars &&
           SameNames(path, folderChars, finalFolder_.data(), static_cast<int>(folderChars)) &&
           SameNames(path + folderChars, chars - folderChars, below, -1);
}

void LogPlace::Refresh(const char* folder) {
    folder_ = folder;
    finalFolder_.clear();
    const UniqueHandle opened(::CreateFileA(folder, FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                            OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    char path[kFinalPathChars];
    DWORD chars = 0;
    if (!opened || !FinalPathOf(opened.get(), path, &chars)) return;
    // A root folder's final path ends in its backslash; the names below begin with one.
    if (path[chars - 1] == '\\') --chars;
    finalFolder_.assign(path, chars);
}

// Opened with the flag that opens a link itself instead of its target (Wine follows it all the
// same; the checks of what was opened then refuse it). Append-only access: every write goes to the
// end of the file without an offset, so without an OVERLAPPED, which would cost Wine a round trip
// to its server per line.
UniqueHandle OpenLogFile(const char* path, DWORD disposition) {
    return UniqueHandle(
        ::CreateFileA(path, FILE_APPEND_DATA | SYNCHRONIZE, kShareAll, nullptr, disposition,
                      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

bool SameFile(const BY_HANDLE_FILE_INFORMATION& a, const BY_HANDLE_FILE_INFORMATION& b) {
    return a.dwVolumeSerialNumber == b.dwVolumeSerialNumber &&
           a.nFileIndexHigh == b.nFileIndexHigh && a.nFileIndexLow == b.nFileIndexLow;
}

// Emptying needs write access, which would make every write through the kept handle land at its
// file pointer; a second handle empties the file, and only once it holds the kept handle's own
// file: a name turned into a link in between is never emptied.
void EmptyLogFile(const char* path, const BY_HANDLE_FILE_INFORMATION& log) {
    const UniqueHandle writer(::CreateFileA(path, GENERIC_WRITE, kShareAll, nullptr, OPEN_EXISTING,
                                            FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    BY_HANDLE_FILE_INFORMATION info;
    // A new handle stands at the file's start.
    if (writer && ::GetFileInformationByHandle(writer.get(), &info) && SameFile(info, log)) {
        ::SetEndOfFile(writer.get());
    }
}

unsigned long long SizeOf(const BY_HANDLE_FILE_INFORMATION& info) {
    return (static_cast<unsigned long long>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
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
    UniqueHandle OpenChecked(const char* folder, const char* path);
    UniqueHandle CreateInOwnFolders(const char* folder, const char* path);
    UniqueHandle OpenFolderStep(const char* folder, const char* below);
    bool IsTheLog(HANDLE file, const char* folder, BY_HANDLE_FILE_INFORMATION* info);

    std::mutex mutex_;
    LineLock lineLock_;
    CommonFilesDataPathWatch folder_;
    LogPlace place_;
    std::string path_;
    UniqueHandle file_;
    int scopes_ = 0;
    bool lockGivenUp_ = false;
};

// The file at the path is still the handle's when the handle's file has a name left and both
// report the same size. A file put in its place (the log renamed aside and another started)
// differs in size as soon as either has been written; a size that moved because another process
// appended in between only costs one reopening. Whatever now stands at the path, the handle still
// holds the file that was checked when it was opened.
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
    if (file.size > kLogTruncateAboveBytes || path_ != path || !HandleNamesFileAt(file)) {
        path_ = path;
        file_ = OpenChecked(folder, path);
    }
    if (!file_) return false;
    ++scopes_;
    return true;
}

// The administrator's log is written only where it belongs: a log refused here leaves the scope
// silent, and whatever a link pointed at stays as it was.
UniqueHandle SharedLog::OpenChecked(const char* folder, const char* path) {
    UniqueHandle file = OpenLogFile(path, OPEN_EXISTING);
    if (!file && ::GetLastError() == ERROR_FILE_NOT_FOUND) file = CreateInOwnFolders(folder, path);
    BY_HANDLE_FILE_INFORMATION info;
    if (!file || !IsTheLog(file.get(), folder, &info)) return UniqueHandle();
    if (SizeOf(info) > kLogTruncateAboveBytes) EmptyLogFile(path, info);
    return file;
}

// A file of its own (not a reparse point: a symbolic link, junction or mount point is never
// written through), with no second name (a hard link would let whoever made it choose the file
// that the administrator appends to), at the log's place.
bool SharedLog::IsTheLog(HANDLE file, const char* folder, BY_HANDLE_FILE_INFORMATION* info) {
    const DWORD notAFile = FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY;
    return ::GetFileInformationByHandle(file, info) && (info->dwFileAttributes & notAFile) == 0 &&
           info->nNumberOfLinks == 1 && place_.Holds(file, folder, kLogFile);
}

// A new log is created only in folders that are folders of their own at their place, each held
// without sharing deletion until the file exists, so that neither can be renamed away and
// replaced by a link in between; and only where no name stands, so not through a link in the
// file's own place either. The log never creates folders.
UniqueHandle SharedLog::CreateInOwnFolders(const char* folder, const char* path) {
    const UniqueHandle update = OpenFolderStep(folder, kUpdateFolder);
    const UniqueHandle log = update ? OpenFolderStep(folder, kLogFolder) : UniqueHandle();
    if (!log) return UniqueHandle();
    UniqueHandle file = OpenLogFile(path, CREATE_NEW);
    // Another process may have created it in between.
    if (!file && ::GetLastError() == ERROR_FILE_EXISTS) file = OpenLogFile(path, OPEN_EXISTING);
    return file;
}

// Listing access makes the handle count for sharing: one that reads attributes only would not
// keep the folder from being renamed.
UniqueHandle SharedLog::OpenFolderStep(const char* folder, const char* below) {
    char path[kPathChars];
    FormatBounded(path, "%s%s", folder, below);
    UniqueHandle step(::CreateFileA(path, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                    nullptr));
    BY_HANDLE_FILE_INFORMATION info;
    const DWORD kind = FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY;
    const bool own = step && ::GetFileInformationByHandle(step.get(), &info) &&
                     (info.dwFileAttributes & kind) == FILE_ATTRIBUTE_DIRECTORY &&
                     place_.Holds(step.get(), folder, below);
    return own ? std::move(step) : UniqueHandle();
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
