// Shared helpers of the test programs: folders and files in the Wine prefix, registry values
// restored afterwards, the update log, the DLL as a host loads it, and child processes.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

namespace kitetest {

constexpr const char* kCommonKey = "Software\\Tolvix\\TallowmereCommon";

std::string ExeFolder();
bool Exists(const std::string& path);
std::string ReadFileBytes(const std::string& path);
void WriteFileBytes(const std::string& path, const std::string& bytes);
void CreateFolders(const std::string& path);
void CopyFileTo(const std::string& from, const std::string& to);

// Owners of a folder, a value, a process: never copied, so never released twice.
struct NoCopy {
    NoCopy() = default;
    NoCopy(const NoCopy&) = delete;
    NoCopy& operator=(const NoCopy&) = delete;
};

std::string FixturePath(const std::string& name);

// A fresh folder C:\kitetest\<tag>-<pid>-<n>, removed with its contents at the end.
class TempFolder : NoCopy {
  public:
    explicit TempFolder(const std::string& tag);
    ~TempFolder();
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "\\" + name; }

  private:
    std::string path_;
};

// The raw data of one HKLM value (and its type); empty when it does not exist.
std::string RegistryValueBytes(const std::string& key, const std::string& name,
                               DWORD* type = nullptr);

// One HKLM value, put back as it was (or removed) when the object goes.
class RegistryValue : NoCopy {
  public:
    RegistryValue(const std::string& key, const std::string& name);
    ~RegistryValue();
    void Set(DWORD type, const std::string& bytes);
    void SetString(const std::string& text);
    void SetDword(DWORD value);
    void Delete();

  private:
    std::string key_;
    std::string name_;
    bool existed_ = false;
    DWORD type_ = 0;
    std::string saved_;
};

// An HKLM key that a test creates; at the end it goes with its whole tree.
class RegistryKey : NoCopy {
  public:
    explicit RegistryKey(const std::string& key);
    ~RegistryKey();

  private:
    std::string key_;
};

// Each test gets its own common data folder with an empty log folder, and CommonFilesDataPath
// pointing at it.
class LogTest : public ::testing::Test {
  public:
    LogTest();

    std::string DataFolder() const { return folder_ / "data"; }
    std::string LogPath() const;
    std::string ReadLog() const { return ReadFileBytes(LogPath()); }
    void ClearLog() const { ::DeleteFileA(LogPath().c_str()); }
    std::string ReadMaskedLog() const;

    TempFolder folder_;
    RegistryValue dataPath_;
};

// Every "YYYY-MM-DD.HH:MM:SS : Entering|Exiting " stamp as "<stamp>"; one of any other form stays.
std::string MaskStamps(const std::string& log);
// The expected trail of one scope: entering line, message lines, exiting line, CRLF each.
std::string Trail(const std::string& scope, const std::string& messages);

using Lines = std::vector<std::string>;
// One entry per call of the scope in a masked log, in order, each with the message lines that
// call wrote itself, apart from those of the scopes nested in it (without their CR LF).
std::vector<Lines> LinesOfScope(const std::string& maskedLog, const std::string& scope);

class KiteDll : NoCopy {
  public:
    KiteDll();
    ~KiteDll();
    FARPROC ByName(const char* name) const { return ::GetProcAddress(module_, name); }
    template <typename Fn>
    Fn Get(const char* name) const {
        return reinterpret_cast<Fn>(reinterpret_cast<void*>(ByName(name)));
    }

  private:
    HMODULE module_;
};

struct ProcessResult {
    DWORD exitCode;
    std::string output;  // standard output and error together
};

ProcessResult RunProcess(const std::string& commandLine);

// Starts a command line without waiting; the caller owns the process handle.
HANDLE StartProcess(const std::string& commandLine);

std::string Quote(const std::string& text);

// kitechild.exe (next to the test program) holding on until it is stopped. The test starts it
// with Start, or hands Arguments() to code that starts it; Stop (and the destructor) tells it
// to end and waits until it has gone, so no child outlives its test.
class HeldProgram : NoCopy {
  public:
    HeldProgram();
    ~HeldProgram();
    static std::string ProgramPath();
    std::string Arguments() const { return "hold " + name_; }
    // Starts the program at exePath (a copy of ProgramPath()) and waits until it runs, holding
    // the file, when one is named, open without sharing.
    void Start(const std::string& exePath, const std::string& file = "");
    // Starts kitechild with these arguments before its "hold <name>", and waits until it holds.
    void StartChild(const std::string& arguments);
    // Throws when the program has not come up within a minute (it never does when broken).
    void WaitUntilRunning();
    void Stop();

  private:
    std::string name_;
    HANDLE alive_;
    HANDLE ready_;
    HANDLE stop_;
    HANDLE process_ = nullptr;
};

}  // namespace kitetest
