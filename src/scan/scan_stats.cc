#include "scan_stats.h"

#include "telemetry/telemetry.h"

namespace ostrel::scan {

// The statistic is named after the platform call; a failure keeps the name
// of the function that made it as its message.
void record_call_stat(std::string_view api, std::string_view caller, std::uint64_t elapsed_ms, std::int32_t code) {
  telemetry::record_stat(api, elapsed_ms, code, code != 0 ? caller : std::string_view{});
}

void call_tally::flush(std::string_view api) noexcept {
  if (count == 0) return;
  try {
    telemetry::record_stats(api, count, sum_ms, max_ms);
  } catch (...) {
    // out of memory: the statistic is lost, the scan goes on
  }
  count = sum_ms = max_ms = 0;
}

}  // namespace ostrel::scan
