// Replaces entries of the library's platform table for one scope and restores them afterwards,
// and wraps single entries for the fault and crash drivers.
#pragma once

#include "common/Platform.h"

#include <utility>

namespace kitetest {

class PlatformOverride {
  public:
    PlatformOverride() : saved_(kite::Platform()) {}
    ~PlatformOverride() { kite::Platform() = saved_; }
    PlatformOverride(const PlatformOverride&) = delete;
    PlatformOverride& operator=(const PlatformOverride&) = delete;

    kite::PlatformCalls& calls() { return kite::Platform(); }

  private:
    kite::PlatformCalls saved_;
};

// One entry wrapped: fail (when set) may answer in place of the real call, as a fault does;
// after (when set) runs once the real call has returned, as a step a crash may end at.
template <typename Entry, Entry kite::PlatformCalls::*member>
struct Intercept;
template <typename R, typename... A, R (*kite::PlatformCalls::*member)(A...)>
struct Intercept<R (*)(A...), member> {
    static inline R (*real)(A...) = nullptr;
    static inline bool (*fail)(long long* answer) = nullptr;
    static inline void (*after)() = nullptr;
    static R Call(A... arguments) {
        long long answer = 0;
        if (fail != nullptr && fail(&answer)) return (R)answer;
        const R result = real(arguments...);
        if (after != nullptr) after();
        return result;
    }
    static void Arm() { real = std::exchange(kite::Platform().*member, &Call); }
};
#define KITE_INTERCEPT(entry) \
    ::kitetest::Intercept<decltype(kite::PlatformCalls::entry), &kite::PlatformCalls::entry>

}  // namespace kitetest
