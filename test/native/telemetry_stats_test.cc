// Statistic aggregation, the flush rule and the single pending flush attempt.
#include <gtest/gtest.h>

#include <algorithm>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "runtime/clock.h"
#include "telemetry/api_stats.h"
#include "telemetry/telemetry.h"
#include "telemetry/telemetry_state.h"

namespace ostrel::telemetry {
namespace {

constexpr std::int64_t ms = 1'000'000;

// Values compare unsigned: one with the top bit set is the largest.
TEST(TelemetryStats, AggregatesWithTheOtherAsymmetry) {
  const std::uint64_t huge = 0x8000'0000'0000'0001ull;
  api_stats stats;
  stats.record("a", 10, 0, "");
  stats.record("a", 30, 5, "x");
  stats.record("a", huge, 7, "y");
  stats.record("b", 0, -1, "");
  auto entries = stats.take_entries(monotonic_ns());
  ASSERT_EQ(entries.size(), 2u);
  const ApiStatEntry& a = entries[0];
  EXPECT_EQ(a.name, "a");
  EXPECT_EQ(a.count, 3u);
  EXPECT_EQ(a.other, 2u);  // the success and the failure after the stored one
  EXPECT_EQ(a.sum, huge + 40);
  EXPECT_EQ(a.max, huge);
  EXPECT_EQ(a.code, 5);
  EXPECT_EQ(a.message, "x");
  const ApiStatEntry& b = entries[1];
  EXPECT_EQ(b.count, 1u);
  EXPECT_EQ(b.other, 0u);
  EXPECT_EQ(b.code, -1);
  EXPECT_EQ(stats.size(), 0u);
}

TEST(TelemetryStats, FlushesAtMostEvery500MsAndOnlyWithATracer) {
  api_stats stats;
  const std::int64_t t0 = 10'000 * ms;
  EXPECT_TRUE(stats.should_flush(true, true, t0));  // never flushed
  EXPECT_FALSE(stats.should_flush(false, true, t0));
  EXPECT_FALSE(stats.should_flush(true, false, t0));
  stats.record("x", 1, 0, "");
  EXPECT_EQ(stats.take_entries(t0).size(), 1u);
  EXPECT_FALSE(stats.should_flush(true, true, t0 + 499 * ms));
  EXPECT_DOUBLE_EQ(stats.elapsed_ms(t0 + 499 * ms), 499.0);
  EXPECT_TRUE(stats.should_flush(true, true, t0 + 500 * ms));
  EXPECT_FALSE(stats.should_flush(false, true, t0 + 5000 * ms));
  // A take with nothing recorded still counts as a flush.
  EXPECT_TRUE(stats.take_entries(t0 + 600 * ms).empty());
  EXPECT_FALSE(stats.should_flush(true, true, t0 + 1000 * ms));
}

// Counts the attempts the hook is asked to start; each ends at once.
std::atomic<int> g_started{0};
void count_attempt() {
  g_started.fetch_add(1);
  global().stats.end_flush_attempt();
}
void hold_attempt() {
  g_started.fetch_add(1);
}  // stays pending until the test ends it

TEST(TelemetryStats, RecordStartsAnAttemptOnlyWhenNonePending) {
  delivery_hooks hooks;
  hooks.start_flush_attempt = &hold_attempt;
  static delivery_hooks installed;
  installed = hooks;
  g_started = 0;
  install_hooks(&installed);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 10'000; ++i) record_stat("held", 1, 0, "");
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(g_started.load(), 1);  // the first record's attempt carries all the others
  global().stats.end_flush_attempt();
  record_stat("held", 1);
  EXPECT_EQ(g_started.load(), 2);

  installed.start_flush_attempt = &count_attempt;
  global().stats.end_flush_attempt();
  for (int i = 0; i < 3; ++i) record_stat("held", 1);
  EXPECT_EQ(g_started.load(), 5);
  install_hooks(nullptr);

  // Without hooks (no module) a record leaves no attempt pending behind it.
  record_stat("held", 1);
  EXPECT_FALSE(global().stats.flush_attempt_pending());
  // Other suites in this binary record statistics of their own (the scan's
  // "CreateFileW"): look at this test's name only.
  auto entries = global().stats.take_entries(monotonic_ns());
  auto held = std::find_if(entries.begin(), entries.end(), [](const ApiStatEntry& e) { return e.name == "held"; });
  ASSERT_NE(held, entries.end());
  EXPECT_EQ(held->count, 40'005u);
}

}  // namespace
}  // namespace ostrel::telemetry
