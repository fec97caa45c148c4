// What faults, crashes, hostile journals and hostile manifests may leave: the product folder
// committed, undone with its marker, or untouched, and never an old file's bytes lost.
#include "KITEUpdate.h"
#include "installer/Package.h"
#include "support/PlatformOverride.h"

#include <cstdlib>
#include <sstream>
#include <random>

namespace kitetest {
namespace {

// The n-th counted call of the armed entry fails. A run may first make the package's last
// placement fail for good, so that the count starts inside the undo.
struct FaultPlan {
    LONG failAt;
    volatile LONG calls;
    bool reached, counting;
    long long answer;
    DWORD error;
} plan;

bool PlannedFault(long long* answer) {
    // The library flushes many files from several threads at once.
    if (!plan.counting || ::InterlockedIncrement(&plan.calls) != plan.failAt) return false;
    plan.reached = true;
    ::SetLastError(plan.error);
    *answer = plan.answer;
    return true;
}

struct Point {
    const char* operation;
    void (*arm)();
    DWORD error;
    long long answer;
    bool mayCommit;  // a retry may still carry the installation through
};

// clang-format off
#define KITE_FAULT(entry, error, answer) \
    Point{#entry, [] { KITE_INTERCEPT(entry)::Arm(), KITE_INTERCEPT(entry)::fail = PlannedFault; }, \
          error, answer, true}
// clang-format on

bool IsJournal(HANDLE file) {
    char path[MAX_PATH] = {};
    ::GetFinalPathNameByHandleA(file, path, MAX_PATH, 0);
    return std::string(path).find("kite_journal.dat") != std::string::npos;
}

// Only the journal file's writes: a write that failed must never let the installation commit,
// whatever its flush answers.
void ArmJournalWrites() {
    KITE_INTERCEPT(WriteFile)::Arm();
    kite::Platform().WriteFile = [](HANDLE file, LPCVOID data, DWORD size, LPDWORD done,
                                    LPOVERLAPPED overlapped) -> BOOL {
        long long answer = 0;
        if (IsJournal(file) && PlannedFault(&answer)) return FALSE;
        return KITE_INTERCEPT(WriteFile)::real(file, data, size, done, overlapped);
    };
}

bool IsLeftover(const std::string& path) {
    const std::string name = path.substr(path.rfind('\\') + 1);
    return (name.size() == 38 && name.front() == '{' && name.back() == '}') ||
           path.find(".kitenew") != std::string::npos;
}

// An undo that met a second fault may leave that one file as the fault left it, but it goes on
// with every other record, leaves the marker, and loses no old file's bytes.
void ExpectUndoneButOne(const Package& package) {
    const Folder now = package.State();
    int differing = 0;
    for (const auto& old : package.before()) {
        if (now.count(old.first) && now.at(old.first) == old.second) continue;
        ++differing;
        bool kept = false;
        for (const auto& file : now) kept |= IsLeftover(file.first) && file.second == old.second;
        EXPECT_TRUE(kept) << old.first << "'s old bytes are lost";
    }
    EXPECT_LE(differing, 1);
    EXPECT_TRUE(Exists(package.Marker()));
}

// Committed, where a file the commit could not delete (an old file under its GUID name, the
// marker, the journal) may stay until the restart or the next installation settles it.
bool CommittedBut(const Package& package) {
    Folder now = package.State();
    for (auto it = now.begin(); it != now.end();) {
        const bool left = IsLeftover(it->first) || it->first.rfind("CriticalFixes\\", 0) == 0;
        it = left ? now.erase(it) : std::next(it);
    }
    return now == package.installed();
}

class ReliabilityTest : public InstallationTest {};

TEST_F(ReliabilityTest, FaultAtEveryCallLeavesTheFolderSettled) {
    const Point points[] = {
        KITE_FAULT(CreateFileA, ERROR_ACCESS_DENIED, -1),
        KITE_FAULT(WriteFile, ERROR_DISK_FULL, FALSE),
        KITE_FAULT(FlushFileBuffers, ERROR_DISK_FULL, FALSE),
        KITE_FAULT(MoveFileA, ERROR_SHARING_VIOLATION, FALSE),
        KITE_FAULT(MoveFileExA, ERROR_SHARING_VIOLATION, FALSE),
        KITE_FAULT(DeleteFileA, ERROR_ACCESS_DENIED, FALSE),
        KITE_FAULT(SHCreateDirectory, 5, ERROR_ACCESS_DENIED),
        KITE_FAULT(CoCreateGuid, ERROR_OUTOFMEMORY, E_OUTOFMEMORY),
        Point{"WriteFile of the journal", ArmJournalWrites, ERROR_DISK_FULL, FALSE, false},
        KITE_FAULT(CreateProcessA, ERROR_FILE_NOT_FOUND, FALSE),
    };
    int runs = 0;
    for (const bool inUndo : {false, true}) {
        for (const Point& point : points) {
            for (int n = 1;; ++n, ++runs) {
                SCOPED_TRACE(std::string(point.operation) + " #" + std::to_string(n) +
                             (inUndo ? " in the undo" : ""));
                // Only the process-start row registers servers: they cost a process each.
                const bool servers = &point == &points[9];
                Package package(servers ? "kitecom_ok" : "");
                PlatformOverride platform;
                static decltype(kite::PlatformCalls::MoveFileExA) move;
                static std::string last;
                move = platform.calls().MoveFileExA;
                last = package.app() + (servers ? "\\Reports\\TwReports.dll" : "\\Server.dll");
                platform.calls().Sleep = [](DWORD) {};
                if (inUndo) {
                    platform.calls().MoveFileExA = [](LPCSTR from, LPCSTR to, DWORD flags) -> BOOL {
                        if (to == nullptr || last != to) return move(from, to, flags);
                        return plan.counting = true, FALSE;
                    };
                }
                point.arm();
                plan = FaultPlan{n, 0, false, !inUndo, point.answer, point.error};
                const long result = InstallKite(package.Manifest().c_str());
                if (!plan.reached) {
                    EXPECT_EQ(result, inUndo ? static_cast<long>(E_FAIL) : 0);
                    inUndo ? package.ExpectUndone() : package.ExpectCommitted();
                    break;
                }
                if (point.mayCommit && CommittedBut(package)) continue;
                EXPECT_NE(result, 0);
                inUndo ? ExpectUndoneButOne(package) : package.ExpectSettled();
            }
        }
    }
    std::printf("fault runs: %d\n", runs);
}

// The host of a power cut ends itself right after the k-th step it makes (see kitechild), and
// every file it wrote since its last flush is cut back to what the disk held then.
ProcessResult Host(const Package& package, int cutAt, const char* mode, const std::string& arg) {
    const ProcessResult result =
        RunProcess(Quote(HeldProgram::ProgramPath()) + " crash " + std::to_string(cutAt) + " " +
                   mode + " " + Quote(arg) + " " + Quote(package.app()));
    const std::string lost = package.app() + ".lost";
    std::istringstream files(ReadFileBytes(lost));
    for (std::string path, size; std::getline(files, path, '\t') && std::getline(files, size);) {
        HANDLE file = ::CreateFileA(path.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0,
                                    nullptr);
        LARGE_INTEGER at;
        at.QuadPart = std::stoll(size);
        FILETIME created, accessed, written;
        if (file == INVALID_HANDLE_VALUE) continue;
        // The cut loses bytes, not the times the file system recorded.
        ::GetFileTime(file, &created, &accessed, &written);
        ::SetFilePointerEx(file, at, nullptr, FILE_BEGIN);
        ::SetEndOfFile(file);
        ::SetFileTime(file, &created, &accessed, &written);
        ::CloseHandle(file);
    }
    ::DeleteFileA(lost.c_str());
    return result;
}

// Right after the cut, recovery finishes a commit whose mark reached the disk, undoes an
// installation whose whole plan did, and finds nothing to do otherwise; then a host of the six
// exports ends with the package installed.
TEST_F(ReliabilityTest, PowerCutAtAnyStepEndsInstalled) {
    int richest = 0;
    for (int k = 1;; ++k) {
        SCOPED_TRACE("cut at step " + std::to_string(k));
        Package package("kitecom_ok");
        const std::string manifest = package.ManifestFile();
        if (Host(package, k, "install", manifest).exitCode != 99) {
            std::printf("installation cut at each of %d steps\n", k - 1);
            break;
        }
        const std::string journal =
            ReadFileBytes(package.app() + "\\CriticalFixes\\kite_journal.dat");
        const bool committing = journal.find("\nC\n") != std::string::npos;
        const bool planned = journal.find("\nE\n") != std::string::npos;
        const long recovered = RecoverKite(package.app().c_str());
        EXPECT_EQ(recovered, committing ? 2 : planned ? 1 : 0);
        if (recovered == 2) package.ExpectCommitted();
        if (recovered == 1) package.ExpectUndone();
        if (recovered == 1) richest = k;  // the most to undo
        EXPECT_EQ(Host(package, 0, "host", manifest).exitCode, 0u);
        package.ExpectCommitted();
    }
    ASSERT_GT(richest, 10);
    for (int j = 1;; ++j) {
        SCOPED_TRACE("recovery cut at step " + std::to_string(j));
        Package package("kitecom_ok");
        const std::string manifest = package.ManifestFile();
        ASSERT_EQ(Host(package, richest, "install", manifest).exitCode, 99u);
        const bool cut = Host(package, j, "host", manifest).exitCode == 99;
        EXPECT_EQ(Host(package, 0, "host", manifest).exitCode, 0u);
        package.ExpectCommitted();
        if (cut) continue;
        std::printf("its recovery cut at each of %d steps\n", j - 1);
        break;
    }
}

// A host killed while it copies a large file leaves the bytes cut short under a temporary name
// only: recovery puts the old file back and removes them, and the next host installs.
TEST_F(ReliabilityTest, KilledWhileALargeFileIsCopiedNothingCutStays) {
    Package package("");
    const std::string src = package.pkg() + "\\big.dat", dst = package.app() + "\\big.dat";
    WriteFileBytes(dst, "old bytes");
    WriteFileBytes(src, "first");
    HANDLE big = ::CreateFileA(src.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    LARGE_INTEGER end;
    end.QuadPart = 256LL << 20;
    DWORD written = 0;
    ::SetFilePointerEx(big, end, nullptr, FILE_BEGIN);
    ::WriteFile(big, "last", 4, &written, nullptr);
    ::CloseHandle(big);
    const std::string manifest = package.root() / "manifest.xml";
    WriteFileBytes(manifest, package.ManifestOf(Package::Command(src, dst, 0)));
    WriteFileBytes(package.root() / "kite.ini", "[KITEApplicability]\r\nSlipstreams=R8\r\n");
    HANDLE host = StartProcess(Quote(HeldProgram::ProgramPath()) + " crash 0 install " +
                               Quote(manifest) + " " + Quote(package.app()));
    WIN32_FILE_ATTRIBUTE_DATA copied = {};
    for (int waited = 0; waited < 60000 && copied.nFileSizeLow < (64u << 20); waited += 5) {
        ::Sleep(5);
        ::GetFileAttributesExA((dst + ".kitenew").c_str(), GetFileExInfoStandard, &copied);
    }
    ::TerminateProcess(host, 1);
    ::WaitForSingleObject(host, INFINITE);
    ::CloseHandle(host);
    EXPECT_GE(copied.nFileSizeLow, 64u << 20);
    EXPECT_EQ(RecoverKite(package.app().c_str()), 1);
    EXPECT_EQ(ReadFileBytes(dst), "old bytes");
    for (const auto& file : package.State()) EXPECT_FALSE(IsLeftover(file.first)) << file.first;
    EXPECT_EQ(Host(package, 0, "host", manifest).exitCode, 0u);
    EXPECT_TRUE(ReadFileBytes(dst) == ReadFileBytes(src));
}

// Two hosts that find one interrupted installation: the one that settles it holds the folder
// until its own installation commits; the other is told the folder is busy and touches nothing.
TEST_F(ReliabilityTest, TwoHostsFindingOneInterruptedInstallationInstallItOnce) {
    Package package("kitecom_ok");
    const std::string manifest = package.ManifestFile();
    ASSERT_EQ(Host(package, 20, "install", manifest).exitCode, 99u);
    HeldProgram first;
    first.StartChild("crash 1 host " + Quote(manifest) + " " + Quote(package.app()));
    const Folder during = package.State();
    EXPECT_NE(Host(package, 0, "host", manifest).output.find("InstallKite 800700aa"),
              std::string::npos);
    EXPECT_EQ(RecoverKite(package.app().c_str()), static_cast<long>(0x800700AAL));
    EXPECT_EQ(package.State(), during);
    first.Stop();
    package.ExpectCommitted();
}

// A journal this library did not write, or one older than the files it names, is not obeyed.
TEST_F(ReliabilityTest, OnlyATrustworthyJournalIsObeyed) {
    Package package("");
    const std::string readme = package.app() + "\\readme.txt";
    const long untrusted = static_cast<long>(0x8007000DUL);
    const std::pair<std::string, long> rows[] = {
        {"X\t" + readme + "\t\t\t0\t\nE\n", untrusted},                   // unknown change
        {"P\tC:\\windows\\win.ini\t\tx\t0\t1:1\nE\n", untrusted},      // outside the folder
        {"P\t" + readme + "\t\t" + readme + ".kitenew\t0\t1:x\nE\n", untrusted},  // identity
        {"P\t" + readme + "\t\t" + readme + ".kitenew\t0\t99:1\nE\n", 1},  // not the file placed
    };
    CreateFolders(package.app() + "\\CriticalFixes");
    for (const auto& [journal, result] : rows) {
        SCOPED_TRACE(journal);
        WriteFileBytes(package.app() + "\\CriticalFixes\\kite_journal.dat", journal);
        EXPECT_EQ(RecoverKite(package.app().c_str()), result);
        EXPECT_EQ(ReadFileBytes(readme), "old notes\r\n");
    }
}

// Manifests mutated at random (fixed seed; KITE_FUZZ_CASES raises the count for a long run).
TEST_F(ReliabilityTest, MutatedManifestsLeaveTheFolderSettled) {
    const char* cases = std::getenv("KITE_FUZZ_CASES");
    const std::string hostile[] = {"..\\x.dll", "NUL", "x.dll:s", "\\\\?\\C:\\x", "<",
                                   "&amp;",     "]]>", "-1",      "9999999999",   "<command>"};
    std::mt19937 random(8);
    for (int i = 0, count = cases ? std::atoi(cases) : 40; i < count; ++i) {
        Package package("");
        std::string manifest = package.Manifest();
        for (int edits = 1 + random() % 3; edits > 0; --edits) {
            const std::size_t at = random() % manifest.size(), length = random() % 200;
            const int kind = random() % 4;
            if (kind == 0) manifest.erase(at, length);
            if (kind == 1) manifest.insert(at, hostile[length % 10]);
            if (kind == 2) manifest.insert(at, manifest.substr(at, length));
            if (kind == 3) manifest.insert(at, std::string(100 + length, '<'));
        }
        SCOPED_TRACE(manifest);
        const long result = InstallKite(manifest.c_str());
        const Folder now = package.State();
        for (const auto& [name, file] : now) {
            const auto old = package.before().find(name);
            bool known = name.rfind("CriticalFixes", 0) == 0 ||
                         (old != package.before().end() && old->second == file);
            for (const auto& packaged : package.installed()) known |= packaged.second == file;
            EXPECT_TRUE(known && !IsLeftover(name)) << name;
        }
        EXPECT_FALSE(Exists(package.app() + "\\CriticalFixes\\kite_journal.dat"));
        EXPECT_TRUE(result != 0 || !Exists(package.Marker()));
        if (result != 0 && now != package.before()) package.ExpectUndone();
    }
}

}  // namespace
}  // namespace kitetest
