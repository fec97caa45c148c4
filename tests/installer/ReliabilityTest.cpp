// What faults, crashes, hostile journals and hostile manifests may leave: the product folder
// committed, undone with its marker, or untouched, and never an old file's bytes lost.
#include "KITEUpdate.h"
#include "common/Platform.h"
#include "installer/Package.h"
#include "support/PlatformOverride.h"

#include <cstdlib>
#include <random>
#include <type_traits>

namespace kitetest {
namespace {

// The one fault of a run: the n-th counted call of the armed entry fails. A run may first make
// the package's last copy fail for good, so that the count starts inside the undo.
struct FaultPlan {
    int failAt = 0;
    int calls = 0;
    bool reached = false;
    bool counting = true;
    long long answer = 0;
    DWORD error = 0;
} plan;

template <typename Entry, Entry kite::PlatformCalls::*member>
struct Faulty;

template <typename R, typename... A, R (*kite::PlatformCalls::*member)(A...)>
struct Faulty<R (*)(A...), member> {
    static inline R (*real)(A...) = nullptr;
    static R Call(A... arguments) {
        if (plan.counting && ++plan.calls == plan.failAt) {
            plan.reached = true;
            ::SetLastError(plan.error);
            if constexpr (std::is_pointer_v<R>) {
                return nullptr;
            } else {
                return static_cast<R>(plan.answer);
            }
        }
        return real(arguments...);
    }
    static void Arm() {
        real = kite::Platform().*member;
        kite::Platform().*member = &Call;
    }
};

#define KITE_FAULT(entry, error, answer)                        \
    {                                                           \
#entry, &Faulty < decltype(kite::PlatformCalls::entry), \
            &kite::PlatformCalls::entry> ::Arm, error, answer   \
    }

struct Point {
    const char* operation;
    void (*arm)();
    DWORD error;
    long long answer;
};

const Point kPoints[] = {
    KITE_FAULT(CopyFileA, ERROR_ACCESS_DENIED, FALSE),
    KITE_FAULT(MoveFileA, ERROR_SHARING_VIOLATION, FALSE),
    KITE_FAULT(DeleteFileA, ERROR_ACCESS_DENIED, FALSE),
    KITE_FAULT(SHCreateDirectory, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED),
    KITE_FAULT(CoCreateGuid, ERROR_OUTOFMEMORY, E_OUTOFMEMORY),
    KITE_FAULT(WriteFile, ERROR_DISK_FULL, FALSE),
    KITE_FAULT(FlushFileBuffers, ERROR_DISK_FULL, FALSE),
    KITE_FAULT(CreateProcessA, ERROR_FILE_NOT_FOUND, FALSE),
};

bool IsGuidName(const std::string& path) {
    const std::string name = path.substr(path.rfind('\\') + 1);
    return name.size() == 38 && name.front() == '{' && name.back() == '}';
}

// An undo that met a second fault may leave one file as the fault left it, but it goes on with
// every other record, leaves the marker, and loses no old file's bytes.
void ExpectUndoneButOne(const Package& package) {
    const Folder now = package.State();
    int differing = 0;
    for (const auto& old : package.before()) {
        if (now.count(old.first) && now.at(old.first) == old.second) continue;
        ++differing;
        bool kept = false;
        for (const auto& entry : now)
            kept = kept || (IsGuidName(entry.first) && entry.second == old.second);
        EXPECT_TRUE(kept) << old.first << "'s old bytes are lost";
    }
    EXPECT_LE(differing, 1);
    EXPECT_TRUE(Exists(package.Marker()));
}

// Committed, where a file that the commit could not delete (an old file under its GUID name, the
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

// A fault at every call of every failure-prone platform operation, first in the installation,
// then (with the last copy failing for good) inside its undo.
TEST_F(ReliabilityTest, FaultAtEveryCallLeavesTheFolderSettled) {
    int runs = 0;
    for (const bool inUndo : {false, true}) {
        for (const Point& point : kPoints) {
            for (int n = 1;; ++n) {
                SCOPED_TRACE(std::string(point.operation) + " #" + std::to_string(n) +
                             (inUndo ? " in the undo" : ""));
                const bool servers = point.arm == kPoints[7].arm;
                Package package(servers ? "kitecom_ok" : "");
                PlatformOverride platform;
                static decltype(kite::PlatformCalls::CopyFileA) copy;
                static std::string lastDst;
                copy = platform.calls().CopyFileA;
                lastDst = package.app() + (servers ? "\\Reports\\TwReports.dll" : "\\Server.dll");
                platform.calls().Sleep = [](DWORD) {};
                if (inUndo) {
                    platform.calls().CopyFileA = [](LPCSTR from, LPCSTR to, BOOL fail) -> BOOL {
                        if (lastDst != to) return copy(from, to, fail);
                        plan.counting = true;
                        return FALSE;
                    };
                }
                point.arm();
                plan = FaultPlan{n, 0, false, !inUndo, point.answer, point.error};
                const long result = InstallKite(package.Manifest().c_str());
                ++runs;
                if (!plan.reached) {
                    EXPECT_EQ(result, inUndo ? static_cast<long>(E_FAIL) : 0);
                    inUndo ? package.ExpectUndone() : package.ExpectCommitted();
                    break;
                }
                if (CommittedBut(package)) {
                    EXPECT_TRUE(Package::ServerRegistered("Server.dll"));
                } else if (inUndo) {
                    ExpectUndoneButOne(package);
                } else {
                    package.ExpectSettled();
                }
            }
        }
    }
    std::printf("fault runs: %d\n", runs);
}

// The crashing host ends itself right after the k-th change it makes; the next host that calls
// only the six exports in their documented order must end with the package installed.
ProcessResult Host(const Package& package, int crashAt, const char* mode, const std::string& arg) {
    return RunProcess(Quote(ExeFolder() + "\\fixtures\\kitecrash.exe") + " " +
                      std::to_string(crashAt) + " " + mode + " " + Quote(arg) + " " +
                      Quote(package.app()));
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
            richest = k;
        }
        const ProcessResult host = Host(package, 0, "host", manifest);
        EXPECT_EQ(host.exitCode, 0u) << host.output;
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
        if (!killed) {
            std::printf("its recovery killed at each of %d steps\n", j - 1);
            break;
        }
    }
}

// A journal that this library did not write, or that is older than the files it names, is not
// obeyed: nothing it names is touched.
TEST_F(ReliabilityTest, OnlyATrustworthyJournalIsObeyed) {
    Package package("");
    const std::string app = package.app();
    const std::string readme = app + "\\readme.txt";
    const struct {
        const char* what;
        std::string journal;
        long result;
    } rows[] = {
        {"unknown action", "R\t9\t" + readme + "\t\t0\t\n", static_cast<long>(0x8007000D)},
        {"outside the folder", "R\t3\tC:\\windows\\win.ini\t\t0\t1:1\n",
         static_cast<long>(0x8007000D)},
        {"settles nothing", "S\t3\t" + readme + "\t\t0\t1:1\n", static_cast<long>(0x8007000D)},
        {"older than the file", "R\t3\t" + readme + "\t\t0\t11:1\n", 1},
    };
    CreateFolders(app + "\\CriticalFixes");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        WriteFileBytes(app + "\\CriticalFixes\\kite_journal.dat", row.journal);
        EXPECT_EQ(RecoverKite(app.c_str()), row.result);
        EXPECT_EQ(ReadFileBytes(readme), "old notes\r\n");
    }
}

// Manifests mutated at random (fixed seed; KITE_FUZZ_CASES raises the count for a long run).
TEST_F(ReliabilityTest, MutatedManifestsLeaveTheFolderSettled) {
    const char* cases = std::getenv("KITE_FUZZ_CASES");
    const int count = cases ? std::atoi(cases) : 40;
    const std::string hostile[] = {
        "..\\x.dll", "NUL", "x.dll:s",    "\\\\?\\C:\\x",       "<", "&amp;", "]]>",
        "<command>", "-1",  "9999999999", std::string(300, 'n')};
    std::mt19937 random(8);
    for (int i = 0; i < count; ++i) {
        Package package("");
        std::string manifest = package.Manifest();
        for (int edits = 1 + random() % 3; edits > 0; --edits) {
            const std::size_t at = random() % manifest.size();
            switch (random() % 4) {
                case 0:
                    manifest.erase(at, random() % 40);
                    break;
                case 1:
                    manifest.insert(at, hostile[random() % 11]);
                    break;
                case 2:
                    manifest.insert(at, manifest.substr(at, random() % 200));
                    break;
                default:
                    manifest.insert(at, std::string(100 + random() % 100, '<'));
                    break;
            }
        }
        SCOPED_TRACE(manifest);
        const long result = InstallKite(manifest.c_str());
        const Folder now = package.State();
        for (const auto& entry : now) {
            EXPECT_FALSE(IsGuidName(entry.first));
            const auto old = package.before().find(entry.first);
            bool packaged = false;
            for (const auto& file : package.installed())
                packaged = packaged || file.second == entry.second;
            EXPECT_TRUE(entry.first.find("CriticalFixes") == 0 || packaged ||
                        (old != package.before().end() && old->second == entry.second));
        }
        EXPECT_FALSE(Exists(package.app() + "\\CriticalFixes\\kite_journal.dat"));
        EXPECT_TRUE(result != 0 || !Exists(package.Marker()));
        if (result != 0 && now != package.before()) package.ExpectUndone();
    }
}

}  // namespace
}  // namespace kitetest
