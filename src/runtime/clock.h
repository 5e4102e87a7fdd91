// Monotonic time in nanoseconds, the clock every deadline and budget uses.
#pragma once

#include <chrono>
#include <cstdint>

namespace ostrel {

inline std::int64_t monotonic_ns() noexcept {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace ostrel
