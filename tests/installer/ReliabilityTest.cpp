// What faults, crashes, hostile journals and hostile manifests may leave: the product folder
// committed, undone with its marker, or untouched, and never an old file's bytes lost.
#include "KITEUpdate.h"
#include "installer/Package.h"
#include "support/PlatformOverride.h"

#include <cstdlib>
#include <random>

namespace kitetest {
namespace {

// The n-th counted call of the armed entry fails. A run may first make the package's last copy
// fail for good, so that the count starts inside the undo.
struct FaultPlan {
    int failAt, calls;
    bool reached, counting;
    long long answer;
    DWORD error;
} plan;

bool PlannedFault(long long* answer) {
    if (!plan.counting || ++plan.calls != plan.failAt) return false;
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
};

// clang-format off
#define KITE_FAULT(entry, error, answer) \
    Point{#entry, [] { KITE_INTERCEPT(entry)::Arm(), KITE_INTERCEPT(entry)::fail = PlannedFault; }, \
          error, answer}
// clang-format on

bool IsGuidName(const std::string& path) {
    const std::string name = path.substr(path.rfind('\\') + 1);
    return name.size() == 38 && name.front() == '{' && name.back() == '}';
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
        for (const auto& file : now) kept |= IsGuidName(file.first) && file.second == old.second;
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
        const bool left = IsGuidName(it->first) || it->first.rfind("CriticalFixes\\", 0) == 0;
        it = left ? now.erase(it) : std::next(it);
    }
    return now == package.installed();
}

class ReliabilityTest : public InstallationTest {
  public:
    RegistryValue pending_{"System\\CurrentControlSet\\Control\\Session Manager",
                           "PendingFileRenameOperations"};
};

TEST_F(ReliabilityTest, FaultAtEveryCallLeavesTheFolderSettled) {
    const Point points[] = {
        KITE_FAULT(CopyFileA, ERROR_ACCESS_DENIED, FALSE),
        KITE_FAULT(MoveFileA, ERROR_SHARING_VIOLATION, FALSE),
        KITE_FAULT(DeleteFileA, ERROR_ACCESS_DENIED, FALSE),
        KITE_FAULT(SHCreateDirectory, 5, ERROR_ACCESS_DENIED),
        KITE_FAULT(CoCreateGuid, ERROR_OUTOFMEMORY, E_OUTOFMEMORY),
        KITE_FAULT(WriteFile, ERROR_DISK_FULL, FALSE),
        KITE_FAULT(FlushFileBuffers, ERROR_DISK_FULL, FALSE),
        KITE_FAULT(CreateProcessA, ERROR_FILE_NOT_FOUND, FALSE),
    };
    int runs = 0;
    for (const bool inUndo : {false, true}) {
        for (const Point& point : points) {
            for (int n = 1;; ++n, ++runs) {
                SCOPED_TRACE(std::string(point.operation) + " #" + std::to_string(n) +
                             (inUndo ? " in the undo" : ""));
                // Only the process-start row registers servers: they cost a process each.
                const bool servers = &point == &points[7];
                Package package(servers ? "kitecom_ok" : "");
                PlatformOverride platform;
                static decltype(kite::PlatformCalls::CopyFileA) copy;
                static std::string last;
                copy = platform.calls().CopyFileA;
                last = package.app() + (servers ? "\\Reports\\TwReports.dll" : "\\Server.dll");
                platform.calls().Sleep = [](DWORD) {};
                if (inUndo) {
                    platform.calls().CopyFileA = [](LPCSTR from, LPCSTR to, BOOL fail) -> BOOL {
                        if (last != to) return copy(from, to, fail);
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
                if (CommittedBut(package)) continue;
                inUndo ? ExpectUndoneButOne(package) : package.ExpectSettled();
            }
        }
    }
    std::printf("fault runs: %d\n", runs);
}

// The crashing host ends itself right after the k-th change it makes; the next host, which calls
// only the six exports in their documented order, must end with the package installed.
ProcessResult Host(const Package& package, int crashAt, const char* mode, const std::string& arg) {
    return RunProcess(Quote(HeldProgram::ProgramPath()) + " crash " + std::to_string(crashAt) +
                      " " + mode + " " + Quote(arg) + " " + Quote(package.app()));
}

TEST_F(ReliabilityTest, KilledAtAnyStepAHostOfTheSixExportsSettlesIt) {
    int richest = 0;
    for (int k = 1;; ++k) {
        SCOPED_TRACE("killed at step " + std::to_string(k));
        Package package("kitecom_ok");
        const std::string manifest = package.ManifestFile();
        if (Host(package, k, "install", manifest).exitCode != 99) {
            std::printf("installation killed at each of %d steps\n", k - 1);
            break;
        }
        const std::string journal = package.app() + "\\CriticalFixes\\kite_journal.dat";
        if (Exists(package.Marker()) && ReadFileBytes(journal).find("\nC\n") == std::string::npos) {
            richest = k;  // the most to undo
        }
        EXPECT_EQ(Host(package, 0, "host", manifest).exitCode, 0u);
        package.ExpectCommitted();
    }
    ASSERT_GT(richest, 10);
    for (int j = 1;; ++j) {
        SCOPED_TRACE("recovery killed at step " + std::to_string(j));
        Package package("kitecom_ok");
        const std::string manifest = package.ManifestFile();
        ASSERT_EQ(Host(package, richest, "install", manifest).exitCode, 99u);
        const bool killed = Host(package, j, "host", manifest).exitCode == 99;
        EXPECT_EQ(Host(package, 0, "host", manifest).exitCode, 0u);
        package.ExpectCommitted();
        if (killed) continue;
        std::printf("its recovery killed at each of %d steps\n", j - 1);
        break;
    }
}

// A journal this library did not write, or one older than the files it names, is not obeyed.
TEST_F(ReliabilityTest, OnlyATrustworthyJournalIsObeyed) {
    Package package("");
    const std::string readme = package.app() + "\\readme.txt";
    const long untrusted = static_cast<long>(0x8007000DUL);
    const std::pair<std::string, long> rows[] = {
        {"R\t9\t" + readme + "\t\t0\t\n", untrusted},           // unknown action
        {"R\t3\tC:\\windows\\win.ini\t\t0\t1:1\n", untrusted},  // outside the folder
        {"S\t3\t" + readme + "\t\t0\t1:1\n", untrusted},        // settles nothing
        {"R\t3\t" + readme + "\t\t0\t11:1\n", 1},               // older than the file
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
            EXPECT_TRUE(known && !IsGuidName(name)) << name;
        }
        EXPECT_FALSE(Exists(package.app() + "\\CriticalFixes\\kite_journal.dat"));
        EXPECT_TRUE(result != 0 || !Exists(package.Marker()));
        if (result != 0 && now != package.before()) package.ExpectUndone();
    }
}

}  // namespace
}  // namespace kitetest
