// Makes the n-th call of one entry of the library's platform table fail with a chosen error, so
// that one driver loop can place a fault at every call of every failure-prone operation.
#pragma once

#include "common/Platform.h"

#include <windows.h>

#include <functional>
#include <string>
#include <type_traits>

namespace kitetest {

// The one fault of a run: which call of the armed entry fails, and how.
struct FaultPlan {
    int failAt = 0;         // 1-based number of the call that fails; 0 never
    int calls = 0;          // calls of the armed entry so far
    bool reached = false;   // the failing call happened
    DWORD error = 0;        // the thread's last error after the failing call
    long long failure = 0;  // what the failing call answers, unless it answers a pointer
    // Called once, when the fault is injected (the driver notes where the run was then).
    std::function<void()> onInjected;
    // When set, calls are counted only from the first one at which it answers true (the faults
    // placed inside an undo count the undo's own calls, not the installation's before it).
    std::function<bool()> countFrom;
    bool counting = false;

    bool Next() {
        if (countFrom && !counting) {
            if (!countFrom()) return false;
            counting = true;
        }
        ++calls;
        if (calls != failAt) return false;
        reached = true;
        if (onInjected) onInjected();
        ::SetLastError(error);
        return true;
    }
};

FaultPlan& CurrentFaultPlan();

template <typename Entry, Entry kite::PlatformCalls::*member>
struct FaultyEntry;

// Replaces one entry by a wrapper that counts its calls and fails the planned one; every other
// call goes to the entry that was in the table before (the real platform function).
template <typename R, typename... A, R (*kite::PlatformCalls::*member)(A...)>
struct FaultyEntry<R (*)(A...), member> {
    static inline R (*saved)(A...) = nullptr;

    static R Call(A... arguments) {
        if (CurrentFaultPlan().Next()) {
            if constexpr (std::is_pointer_v<R>) {
                return nullptr;
            } else {
                return static_cast<R>(CurrentFaultPlan().failure);
            }
        }
        return saved(arguments...);
    }

    static void Arm() {
        saved = kite::Platform().*member;
        kite::Platform().*member = &Call;
    }

    // Every call fails with the error and answer given: for an operation that is only reached
    // when another one fails (scheduling a deletion, registering in-process).
    static inline DWORD alwaysError = 0;
    static inline long long alwaysFailure = 0;
    static R FailEveryCall(A...) {
        ::SetLastError(alwaysError);
        if constexpr (std::is_pointer_v<R>) {
            return nullptr;
        } else {
            return static_cast<R>(alwaysFailure);
        }
    }
    static void ArmEveryCallFailing(DWORD error, long long failure) {
        alwaysError = error;
        alwaysFailure = failure;
        kite::Platform().*member = &FailEveryCall;
    }
};

// One operation of the table as the driver sees it.
struct FaultPoint {
    const char* operation;
    void (*arm)();
    DWORD error;
    long long failure;  // BOOL entries FALSE, HRESULT entries HRESULT_FROM_WIN32(error), ...
    // For an operation reached only when another fails: makes every call of that one fail.
    void (*precondition)() = nullptr;
    const char* preconditionText = nullptr;
    // The operation is only called while an installation is settled (committed or undone).
    bool settlementOnly = false;
};

// A fresh plan that fails the n-th call of the point's operation as the point says.
inline FaultPlan& PlanFault(const FaultPoint& point, int n) {
    FaultPlan& plan = CurrentFaultPlan();
    plan = FaultPlan();
    plan.failAt = n;
    plan.error = point.error;
    plan.failure = point.failure;
    return plan;
}

// clang-format off
#define KITE_FAULT_POINT(entry, error, failure, ...)                                              \
    ::kitetest::FaultPoint{                                                                       \
        #entry,                                                                                   \
        &::kitetest::FaultyEntry<decltype(kite::PlatformCalls::entry),                            \
                                 &kite::PlatformCalls::entry>::Arm,                               \
        static_cast<DWORD>(error), static_cast<long long>(failure), __VA_ARGS__}
// clang-format on

}  // namespace kitetest
