// A fault at every call of every failure-prone platform operation of an installation: after each
// run the product folder and the registrations are either as before (undone) or as the package
// wants them (committed). The driver links the static library and calls its InstallKite, the
// export's own code, because the platform table it replaces entries of lives in the library.
#include "KITEUpdate.h"

#include "reliability/FaultInjection.h"
#include "reliability/ReliabilityFixture.h"
#include "support/FolderState.h"
#include "support/KiteServers.h"
#include "telemetry/TelemetryReporter.h"

#include <cstdio>
#include <cstring>
#include <set>

namespace kitetest {

FaultPlan& CurrentFaultPlan() {
    static FaultPlan plan;
    return plan;
}

}  // namespace kitetest

namespace {

using kitetest::FaultPoint;
using kitetest::RunOutcome;
using State = std::map<std::string, std::string>;

constexpr long long kHresultOf(DWORD error) { return static_cast<long>(HRESULT_FROM_WIN32(error)); }

// Where the run was when the fault struck, read from the log that the installation writes.
enum class Phase { kWork, kUndo, kCommit };

void DeleteFileAlwaysFails() {
    kitetest::FaultyEntry<
        decltype(kite::PlatformCalls::DeleteFileA),
        &kite::PlatformCalls::DeleteFileA>::ArmEveryCallFailing(ERROR_SHARING_VIOLATION, FALSE);
}

// regsvr32 cannot be started, so the servers are registered in this process.
void CreateProcessAlwaysFails() {
    kitetest::FaultyEntry<
        decltype(kite::PlatformCalls::CreateProcessA),
        &kite::PlatformCalls::CreateProcessA>::ArmEveryCallFailing(ERROR_FILE_NOT_FOUND, FALSE);
}

// Every operation that an installation can see fail, with an error it could meet for real.
const FaultPoint kFaultPoints[] = {
    KITE_FAULT_POINT(MoveFileA, ERROR_SHARING_VIOLATION, FALSE),
    KITE_FAULT_POINT(CopyFileA, ERROR_ACCESS_DENIED, FALSE),
    KITE_FAULT_POINT(SHCreateDirectory, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED),
    KITE_FAULT_POINT(CoCreateGuid, ERROR_NOT_ENOUGH_MEMORY, kHresultOf(ERROR_NOT_ENOUGH_MEMORY)),
    KITE_FAULT_POINT(DeleteFileA, ERROR_SHARING_VIOLATION, FALSE),
    KITE_FAULT_POINT(MoveFileExA, ERROR_ACCESS_DENIED, FALSE, DeleteFileAlwaysFails,
                     "every DeleteFileA fails", true),
    KITE_FAULT_POINT(CreateProcessA, ERROR_FILE_NOT_FOUND, FALSE),
    KITE_FAULT_POINT(LoadLibraryA, ERROR_MOD_NOT_FOUND, 0, CreateProcessAlwaysFails,
                     "every CreateProcessA fails"),
    KITE_FAULT_POINT(CoCreateInstance, ERROR_NOT_ENOUGH_MEMORY,
                     kHresultOf(ERROR_NOT_ENOUGH_MEMORY)),
    KITE_FAULT_POINT(InternetOpenW, ERROR_INTERNET_INTERNAL_ERROR, 0),
    KITE_FAULT_POINT(InternetOpenUrlW, ERROR_INTERNET_CANNOT_CONNECT, 0),
    KITE_FAULT_POINT(InternetReadFile, ERROR_INTERNET_CONNECTION_RESET, FALSE),
    KITE_FAULT_POINT(InternetOpenA, ERROR_INTERNET_INTERNAL_ERROR, 0),
    KITE_FAULT_POINT(InternetConnectA, ERROR_INTERNET_NAME_NOT_RESOLVED, 0),
    KITE_FAULT_POINT(HttpOpenRequestA, ERROR_INTERNET_INTERNAL_ERROR, 0),
    KITE_FAULT_POINT(HttpSendRequestA, ERROR_INTERNET_CONNECTION_RESET, FALSE),
    KITE_FAULT_POINT(HttpEndRequestA, ERROR_INTERNET_TIMEOUT, FALSE),
};

// Telemetry posts only matter to the operations of the transport; the others run with both
// channels off, which keeps a run short.
bool NeedsCollector(const std::string& operation) {
    return operation.compare(0, 8, "Internet") == 0 || operation.compare(0, 4, "Http") == 0;
}

class FaultInjectionTest : public kitetest::ReliabilityFixture {};

void VoidSleep(DWORD) {}

TEST_F(FaultInjectionTest, EveryFaultAtEveryCallLeavesTheProductIntact) {
    kitetest::PlatformOverride platform;
    // The copy's retries wait a second each; here they are not the point.
    platform.calls().Sleep = VoidSleep;
    kite::TelemetryReporter::Instance();

    int totalRuns = 0;
    int totalIntact = 0;
    int totalInjected = 0;
    std::vector<std::string> undoLosses;
    std::printf("%-20s %6s %9s %9s %7s %11s\n", "operation", "runs", "injected", "committed",
                "undone", "undo-fault");
    for (const FaultPoint& point : kFaultPoints) {
        int runs = 0, injected = 0, committed = 0, undone = 0, undoFaults = 0;
        const bool collector = NeedsCollector(point.operation);
        for (int n = 1;; ++n) {
            ArrangeRun(collector);
            kitetest::FaultPlan& plan = kitetest::PlanFault(point, n);
            // With every deletion failing, every commit leaves its aside files scheduled.
            Phase phase = point.settlementOnly ? Phase::kCommit : Phase::kWork;
            plan.onInjected = [&] {
                const std::string log = ReadLog();
                if (point.settlementOnly) {
                    phase = log.find("Entering CKiteInstaller::Abort") != std::string::npos
                                ? Phase::kUndo
                                : Phase::kCommit;
                } else if (log.find("Entering CKiteInstaller::Abort") != std::string::npos) {
                    phase = Phase::kUndo;
                } else if (log.find("Entering CKiteInstaller::Commit") != std::string::npos) {
                    phase = Phase::kCommit;
                }
            };
            HRESULT result = E_UNEXPECTED;
            {
                kitetest::PlatformOverride armed;
                if (point.precondition) point.precondition();
                point.arm();
                // A host's first use: the reporter fetches its configuration, then installs.
                kite::TelemetryReporter::Instance() = kite::TelemetryReporter();
                kite::TelemetryReporter::Instance().LoadConfiguration();
                result = InstallKite(Manifest().c_str());
            }
            ++runs;
            const std::string what = std::string(point.operation) + " call " + std::to_string(n);
            ASSERT_TRUE(result == S_OK || result == E_FAIL) << what << ": " << std::hex << result;
            const RunOutcome outcome = Examine(result);
            if (plan.reached) ++injected;
            if (phase == Phase::kWork) {
                EXPECT_TRUE(outcome.intact) << what << ": " << outcome.difference;
                if (outcome.intact) (result == S_OK ? committed : undone) += 1;
            } else {
                // The fault struck the settlement itself: whatever it leaves is what the design
                // does, and no old file's bytes may be gone for good.
                ++undoFaults;
                EXPECT_TRUE(outcome.noBytesLost) << what << ": " << outcome.difference;
                if (outcome.intact) {
                    (result == S_OK ? committed : undone) += 1;
                } else {
                    undoLosses.push_back(what +
                                         (phase == Phase::kUndo ? " (undo): " : " (commit): ") +
                                         outcome.difference);
                }
            }
            if (!plan.reached) break;
        }
        std::printf("%-20s %6d %9d %9d %7d %11d%s%s\n", point.operation, runs, injected, committed,
                    undone, undoFaults, point.precondition ? "  while " : "",
                    point.precondition ? point.preconditionText : "");
        totalRuns += runs;
        totalInjected += injected;
        totalIntact += committed + undone;
        EXPECT_GT(injected, 0) << point.operation << " was never called by an installation";
    }
    std::printf("operations %zu, runs %d, faults injected %d, runs intact %d\n",
                std::size(kFaultPoints), totalRuns, totalInjected, totalIntact);
    std::printf("runs not intact, each with the fault inside the settlement itself: %zu\n",
                undoLosses.size());
    for (const std::string& loss : undoLosses) std::printf("  %s\n", loss.c_str());
}

// The first fault of a run, which makes the installation fail for good at a fixed point, so that
// the undo has work of every kind to do. Either every copy of the last file (plugins\notes.txt)
// fails, after five files were renamed aside or placed: the undo deletes new files, renames old
// ones back and registers the old server again. Or the last server (plugins\srv2.dll) cannot be
// registered, after srv.dll was: the undo also unregisters the new srv.dll first.
std::string g_lastFile;
std::string g_lastServer;
BOOL(WINAPI* g_realCopyFileA)(LPCSTR, LPCSTR, BOOL) = nullptr;
BOOL WINAPI CopyFailsAtTheLastFile(LPCSTR from, LPCSTR to, BOOL failIfExists) {
    if (::lstrcmpiA(to, g_lastFile.c_str()) == 0) {
        ::SetLastError(ERROR_DISK_FULL);
        return FALSE;
    }
    return g_realCopyFileA(from, to, failIfExists);
}

decltype(&::CreateProcessA) g_realCreateProcessA = nullptr;
BOOL WINAPI RegistrationFailsAtTheLastServer(LPCSTR application, LPSTR commandLine,
                                             LPSECURITY_ATTRIBUTES process,
                                             LPSECURITY_ATTRIBUTES thread, BOOL inherit,
                                             DWORD flags, LPVOID environment, LPCSTR folder,
                                             LPSTARTUPINFOA startup,
                                             LPPROCESS_INFORMATION information) {
    if (commandLine != nullptr && std::strstr(commandLine, g_lastServer.c_str()) != nullptr) {
        ::SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
    }
    return g_realCreateProcessA(application, commandLine, process, thread, inherit, flags,
                                environment, folder, startup, information);
}

// Without regsvr32 a server is registered in-process; the last one cannot be loaded either.
decltype(&::LoadLibraryA) g_realLoadLibraryA = nullptr;
HMODULE WINAPI LoadFailsAtTheLastServer(LPCSTR path) {
    if (path != nullptr && ::lstrcmpiA(path, g_lastServer.c_str()) == 0) {
        ::SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    return g_realLoadLibraryA(path);
}

struct FirstFault {
    const char* what;
    void (*arm)();
};

const FirstFault kFirstFaults[] = {
    {"copy of the last file",
     [] {
         g_realCopyFileA = kite::Platform().CopyFileA;
         kite::Platform().CopyFileA = CopyFailsAtTheLastFile;
     }},
    {"registration of the last server",
     [] {
         g_realCreateProcessA = kite::Platform().CreateProcessA;
         kite::Platform().CreateProcessA = RegistrationFailsAtTheLastServer;
         g_realLoadLibraryA = kite::Platform().LoadLibraryA;
         kite::Platform().LoadLibraryA = LoadFailsAtTheLastServer;
     }},
};

// Every operation that an undo calls through the platform table. The marker is created with
// CreateFileA directly, so only its folder (SHCreateDirectory) can be made to fail.
const FaultPoint kUndoFaultPoints[] = {
    KITE_FAULT_POINT(MoveFileA, ERROR_SHARING_VIOLATION, FALSE),
    KITE_FAULT_POINT(DeleteFileA, ERROR_SHARING_VIOLATION, FALSE),
    KITE_FAULT_POINT(MoveFileExA, ERROR_ACCESS_DENIED, FALSE, DeleteFileAlwaysFails,
                     "every DeleteFileA fails"),
    KITE_FAULT_POINT(CreateProcessA, ERROR_FILE_NOT_FOUND, FALSE),
    KITE_FAULT_POINT(LoadLibraryA, ERROR_MOD_NOT_FOUND, 0, CreateProcessAlwaysFails,
                     "every CreateProcessA fails"),
    KITE_FAULT_POINT(SHCreateDirectory, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED),
    KITE_FAULT_POINT(WriteFile, ERROR_DISK_FULL, FALSE),
    KITE_FAULT_POINT(FlushFileBuffers, ERROR_DISK_FULL, FALSE),
};

TEST_F(FaultInjectionTest, EveryFaultInsideTheUndoKeepsTheOldFiles) {
    kitetest::PlatformOverride platform;
    platform.calls().Sleep = VoidSleep;
    kite::TelemetryReporter::Instance() = kite::TelemetryReporter();
    g_lastFile = product_ + "\\plugins\\notes.txt";
    g_lastServer = product_ + "\\plugins\\srv2.dll";
    const std::string journal = product_ + "\\CriticalFixes\\kite_journal.dat";

    int totalRuns = 0, totalInjected = 0, totalIntact = 0, totalSpecified = 0;
    int totalJournals = 0, totalRecovered = 0;
    std::vector<std::string> specified;
    std::printf("%-32s %-18s %5s %9s %7s %10s %8s %10s\n", "first fault", "undo operation", "runs",
                "injected", "intact", "specified", "journal", "recovered");
    for (const FirstFault& first : kFirstFaults) {
        for (const FaultPoint& point : kUndoFaultPoints) {
            int runs = 0, injected = 0, intact = 0, specifiedRuns = 0, journals = 0, recovered = 0;
            for (int n = 1;; ++n) {
                ArrangeRun(false);
                kitetest::FaultPlan& plan = kitetest::PlanFault(point, n);
                // Only the undo's own calls count: the log shows when it began.
                plan.countFrom = [this] {
                    return ReadLog().find("Entering CKiteInstaller::Abort") != std::string::npos;
                };
                HRESULT result = E_UNEXPECTED;
                {
                    kitetest::PlatformOverride armed;
                    first.arm();
                    if (point.precondition) point.precondition();
                    point.arm();
                    result = InstallKite(Manifest().c_str());
                }
                ++runs;
                const std::string what = std::string(first.what) + ", undo's " + point.operation +
                                         " call " + std::to_string(n);
                ASSERT_EQ(result, E_FAIL) << what;
                ASSERT_TRUE(plan.counting) << what << ": the installation was never undone";
                if (plan.reached) ++injected;
                const RunOutcome outcome = Examine(result);
                // Whatever a failed undo step leaves, no old file's bytes may be gone for good.
                EXPECT_TRUE(outcome.noBytesLost) << what << ": " << outcome.difference;
                if (outcome.intact) {
                    ++intact;
                } else {
                    ++specifiedRuns;
                    specified.push_back(what + ":" + outcome.difference);
                }
                if (kitetest::Exists(journal)) {
                    ++journals;
                    // The next host to look settles what the journal still holds.
                    EXPECT_EQ(RecoverKite(product_.c_str()), 1) << what;
                    EXPECT_FALSE(kitetest::Exists(journal)) << what;
                    const RunOutcome after = Examine(E_FAIL);
                    EXPECT_TRUE(after.noBytesLost) << what << " recovered: " << after.difference;
                    // Recovery never makes a folder worse than the undo left it.
                    if (outcome.intact) {
                        EXPECT_TRUE(after.intact) << what << " recovered: " << after.difference;
                    }
                    if (after.intact) ++recovered;
                    if (!outcome.intact) {
                        specified.back() +=
                            " (journal left; after recovery:" +
                            (after.intact ? std::string(" intact)") : after.difference + ")");
                    }
                }
                if (!plan.reached) break;
            }
            std::printf("%-32s %-18s %5d %9d %7d %10d %8d %10d%s%s\n", first.what, point.operation,
                        runs, injected, intact, specifiedRuns, journals, recovered,
                        point.precondition ? "  while " : "",
                        point.precondition ? point.preconditionText : "");
            totalRuns += runs;
            totalInjected += injected;
            totalIntact += intact;
            totalSpecified += specifiedRuns;
            totalJournals += journals;
            totalRecovered += recovered;
            EXPECT_GT(injected, 0)
                << point.operation << " was never called by the undo of the " << first.what;
        }
    }
    std::printf(
        "first faults %zu, undo operations %zu, runs %d, faults injected %d, runs intact %d, "
        "specified-behaviour runs "
        "%d, journals left %d, intact after recovery %d\n",
        std::size(kFirstFaults), std::size(kUndoFaultPoints), totalRuns, totalInjected, totalIntact,
        totalSpecified, totalJournals, totalRecovered);
    for (const std::string& run : specified) std::printf("  %s\n", run.c_str());
}

}  // namespace
