// The scanner's call statistics: one record per platform call, with its
// duration and error code (0 on success).
#pragma once

#include <cstdint>
#include <string_view>

namespace ostrel::scan {

void record_call_stat(std::string_view api, std::string_view caller, std::uint64_t elapsed_ms, std::int32_t code);

// Successful calls of one kind added up and recorded together (a walk
// makes one per entry; recording each takes the statistics' lock).
// One thread at a time; flush() records what was added.
struct call_tally {
  std::uint64_t count = 0;
  std::uint64_t sum_ms = 0;
  std::uint64_t max_ms = 0;
  void add(std::uint64_t ms) noexcept {
    ++count;
    sum_ms += ms;
    if (max_ms < ms) max_ms = ms;
  }
  void flush(std::string_view api) noexcept;
};

}  // namespace ostrel::scan
