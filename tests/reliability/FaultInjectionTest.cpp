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
    KITE_FAULT_POINT(URLDownloadToFileA, ERROR_INTERNET_CANNOT_CONNECT,
                     kHresultOf(ERROR_INTERNET_CANNOT_CONNECT)),
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
            kitetest::FaultPlan& plan = kitetest::CurrentFaultPlan();
            plan = kitetest::FaultPlan();
            plan.failAt = n;
            plan.error = point.error;
            plan.failure = point.failure;
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

}  // namespace
