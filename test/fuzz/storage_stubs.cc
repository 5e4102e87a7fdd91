// What mounts.cc's list builder links against but the parsers fuzzed here
// never reach: the big-list statistic lives with the telemetry, which the
// fuzzers do not build.
#include <cstddef>

namespace ostrel::storage {
bool report_big_disk_list(std::size_t) {
  return false;
}
}  // namespace ostrel::storage
