// Replaces entries of the library's platform table for one scope and restores them afterwards.
#pragma once

#include "common/Platform.h"

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

}  // namespace kitetest
