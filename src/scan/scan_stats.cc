#include "scan_stats.h"

namespace ostrel::scan {

// The telemetry subsystem is not in this build yet; the statistic is dropped.
void record_call_stat(std::string_view, std::string_view, std::uint64_t, std::int32_t) {}

}  // namespace ostrel::scan
