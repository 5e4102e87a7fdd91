// Statistics recorded from many threads while flushes take the entries out:
// no record is lost or counted twice (run it under ThreadSanitizer too).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "runtime/clock.h"
#include "telemetry/api_stats.h"

namespace ostrel::telemetry {
namespace {

TEST(TelemetryStress, RecordsWhileFlushingLoseNothing) {
  api_stats stats;
  constexpr int threads = 8;
  constexpr int each = 20'000;
  const std::vector<std::string> names = {"CreateFileW", "FindFirstFileExW", "ReadDirectoryChangesW",
                                          "a rather long statistic name that does not fit inline"};
  std::atomic<int> running{threads};
  // Halfway through, each recorder waits until two flushes have happened,
  // so flushes always interleave with records, however the threads are
  // scheduled (a fast machine could otherwise record everything first).
  std::atomic<std::uint64_t> flushes_done{0};
  std::vector<std::thread> recorders;
  for (int t = 0; t < threads; ++t) {
    recorders.emplace_back([&, t] {
      for (int i = 0; i < each; ++i) {
        if (i == each / 2) {
          while (flushes_done.load() < 2) std::this_thread::yield();
        }
        // Every 100th record fails, with the thread number as its code.
        const std::int32_t code = i % 100 == 0 ? t + 1 : 0;
        stats.record(names[static_cast<std::size_t>(i) % names.size()], static_cast<std::uint64_t>(i % 7), code,
                     "failed");
      }
      running.fetch_sub(1);
    });
  }

  std::map<std::string, std::uint64_t> count, other, sum, failures_stored;
  std::uint64_t flushes = 0;
  auto take = [&] {
    for (const ApiStatEntry& e : stats.take_entries(monotonic_ns())) {
      count[e.name] += e.count;
      other[e.name] += e.other;
      sum[e.name] += e.sum;
      if (e.code != 0) ++failures_stored[e.name];
      EXPECT_LE(e.max, 6u);
    }
    ++flushes;
    flushes_done.store(flushes);
  };
  while (running.load() > 0) take();
  for (auto& r : recorders) r.join();
  take();

  std::uint64_t total = 0;
  for (const auto& name : names) {
    total += count[name];
    // Each flushed entry stored at most one failure; the rest counted in other.
    EXPECT_EQ(count[name], other[name] + failures_stored[name]) << name;
  }
  EXPECT_EQ(total, static_cast<std::uint64_t>(threads) * each);
  std::uint64_t expected_sum = 0;
  for (int i = 0; i < each; ++i) expected_sum += static_cast<std::uint64_t>(i % 7);
  std::uint64_t got_sum = 0;
  for (const auto& [name, s] : sum) got_sum += s;
  EXPECT_EQ(got_sum, expected_sum * threads);
}

}  // namespace
}  // namespace ostrel::telemetry
