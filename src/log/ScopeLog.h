// The update log "CRITICALFIXES.LOG". Every traced function owns one ScopeLog for its duration:
// it writes an entering line, takes the function's messages as an ordinary std::ostream, and on
// destruction writes the exiting line. Logging never fails an operation: when the file cannot be
// opened every insertion is silently discarded, and the thread's last error code is left as the
// log found it.
//
// The scopes of a process share one handle on the file, opened by the outermost live scope and
// closed when the last one ends, and one cached data folder, read again only after the registry
// reports a change. Every scope entry still makes sure that the handle names the file now at the
// log's path and that the file is not over the size limit.
//
// Ordinary users can often create files and folders below the data folder, so the log never
// writes through a link one of them planted: the file is opened without following a link in its
// place and is written only when it is a file of its own, with one name, whose final path is the
// log's path below the data folder's final path (no junction, symbolic link or mount point on the
// way). A new file is created only in the log's own folders, held while it is created, and never
// through a link. A log over the size limit is emptied through a second handle only once that
// handle holds the same file (volume and index) as the checked one. A refused log is silent.
#pragma once

#include <ctime>
#include <ostream>
#include <streambuf>
#include <string>

namespace kite {

constexpr unsigned long long kLogTruncateAboveBytes = 104857600ULL;

// How long a line waits for the line lock that another writer holds. After that the line is
// written without it: a line that may interleave is better than an installation frozen by
// whoever can open the log. Once a wait has run out, later lines try once only until the lock is
// taken again, so a lock held on purpose costs one wait, not one per line.
constexpr unsigned long kLineLockPatienceMs = 100;

// The section that holds the line lock shared by every process that writes the log.
constexpr char kLineLockName[] = "Global\\KITEUpdate.CRITICALFIXES.LOG.LineLock";

// Text-mode output into the process's shared log: "\n" reaches the file as CR LF, and each flush
// appends the pending text with one write at the end of the file.
class LogFileBuffer : public std::streambuf {
  public:
    // Scope entry: whether the log file could be opened for this scope.
    bool Open();
    void Close();

  protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int sync() override;

  private:
    void Put(char c);

    bool open_ = false;
    std::string pending_;
};

class ScopeLog : public std::ostream {
  public:
    explicit ScopeLog(std::string scope);
    ~ScopeLog() override;

    ScopeLog(const ScopeLog&) = delete;
    ScopeLog& operator=(const ScopeLog&) = delete;

  private:
    void WriteMarkerLine(const char* marker);

    LogFileBuffer file_;
    std::string scope_;
};

// "%Y-%m-%d.%X" of a local time, the stamp of entering and exiting lines.
std::string FormatTimeStamp(const std::tm& localTime);

}  // namespace kite
