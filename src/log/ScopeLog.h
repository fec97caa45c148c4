// The update log "CRITICALFIXES.LOG". Every traced function owns one ScopeLog for its duration:
// it opens the file, writes an entering line, takes the function's messages as an ordinary
// std::ostream, and on destruction writes the exiting line and closes the file. Logging never
// fails an operation: when the file cannot be opened every insertion is silently discarded, and
// the thread's last error code is left as the log found it.
#pragma once

#include "common/Handles.h"

#include <ctime>
#include <ostream>
#include <streambuf>
#include <string>

namespace kite {

constexpr unsigned long long kLogTruncateAboveBytes = 104857600ULL;

// Text-mode output on a shared file handle: "\n" reaches the file as CR LF, and each flush
// appends the pending text with one write at the end of the file.
class LogFileBuffer : public std::streambuf {
  public:
    bool Open(const char* path, bool truncate);
    bool Close();

  protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int sync() override;

  private:
    void Put(char c);
    bool AppendAtEnd(const std::string& text);

    UniqueHandle file_;
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
