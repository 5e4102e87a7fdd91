// Telemetry below the script boundary: queues, aggregation, the flush rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "runtime/clock.h"
#include "telemetry/api_stats.h"
#include "telemetry/queues.h"
#include "telemetry/telemetry.h"
#include "telemetry/telemetry_state.h"
#include "telemetry/tvk_record.h"

namespace ostrel::telemetry {
namespace {

constexpr std::int64_t ms = 1'000'000;

// A batch whose environment went away before delivery goes back in front.
TEST(TelemetryQueues, ARequeuedBatchGoesBackInFront) {
  event_queue q;
  for (const char* m : {"1", "2", "3"}) q.push(make_tvk_record(0, m, {}));
  auto batch = q.take_all();
  q.push(make_tvk_record(0, "newer", {}));
  q.requeue_front(std::move(batch));
  EXPECT_EQ(q.size(), 4u);
  std::vector<std::string> order;
  for (const auto& r : q.take_all()) order.push_back(*r.msg);
  EXPECT_EQ(order, (std::vector<std::string>{"1", "2", "3", "newer"}));
}

TEST(TelemetryQueues, FactsNeedASink) {
  fact_queue q;
  EXPECT_FALSE(q.post("early", {{"k", "v"}}));
  q.set_sink_count(1);
  EXPECT_TRUE(q.post("one", {{"k", "1"}}));
  q.set_sink_count(0);  // the last sink went away: nothing is kept for later
  EXPECT_EQ(q.size(), 0u);
  q.set_sink_count(2);
  EXPECT_TRUE(q.post("three", {{"a", "b"}}));
  auto facts = q.take_all();
  ASSERT_EQ(facts.size(), 1u);
  EXPECT_EQ(facts[0].name, "three");
  EXPECT_EQ(facts[0].attributes.at("a"), "b");
}

// Values compare unsigned: one with the top bit set is the largest.
TEST(TelemetryStats, AggregatesWithTheOtherAsymmetry) {
  const std::uint64_t huge = 0x8000'0000'0000'0001ull;
  api_stats stats;
  stats.record("b", 0, -1, "");
  stats.record("a", 10, 0, "");
  stats.record("a", 30, 5, "x");
  stats.record("a", huge, 7, "y");
  stats.record_successes("a", 3, 6, 4);
  auto entries = stats.take_entries(monotonic_ns());
  ASSERT_EQ(entries.size(), 2u);  // by name
  const ApiStatEntry& a = entries[0];
  // other: the successes and the failure after the stored one.
  EXPECT_EQ(std::tie(a.name, a.count, a.other, a.sum, a.max, a.code, a.message),
            std::make_tuple("a", 6u, 5u, huge + 46, huge, 5, "x"));
  EXPECT_EQ(std::tie(entries[1].count, entries[1].other, entries[1].code), std::make_tuple(1u, 0u, -1));
  EXPECT_EQ(stats.size(), 0u);
}

TEST(TelemetryStats, FlushesAtMostEvery500MsAndOnlyWithATracer) {
  api_stats stats;
  const std::int64_t t0 = 10'000 * ms;
  EXPECT_TRUE(stats.should_flush(true, true, t0));  // never flushed
  EXPECT_FALSE(stats.should_flush(false, true, t0));
  EXPECT_FALSE(stats.should_flush(true, false, t0));
  stats.take_entries(t0);
  EXPECT_FALSE(stats.should_flush(true, true, t0 + 499 * ms));
  EXPECT_TRUE(stats.should_flush(true, true, t0 + 500 * ms));
}

std::atomic<int> g_started{0};
void hold_attempt() {
  g_started.fetch_add(1);
}

TEST(TelemetryStats, RecordStartsAnAttemptOnlyWhenNonePending) {
  static const delivery_hooks hooks{nullptr, nullptr, &hold_attempt};
  install_hooks(&hooks);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 10'000; ++i) record_stat("held", 1, 0, "");
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(g_started.load(), 1);  // the first record's attempt carries all the others
  global().stats.end_flush_attempt();
  record_stats("held", 2, 2, 1);
  EXPECT_EQ(g_started.load(), 2);
  install_hooks(nullptr);
  global().stats.end_flush_attempt();

  // Without hooks (no module) a record leaves no attempt pending behind it.
  record_stat("held", 1);
  EXPECT_FALSE(global().stats.flush_attempt_pending());
  // Other suites in this binary record statistics of their own.
  auto entries = global().stats.take_entries(monotonic_ns());
  auto held = std::find_if(entries.begin(), entries.end(), [](const ApiStatEntry& e) { return e.name == "held"; });
  ASSERT_NE(held, entries.end());
  EXPECT_EQ(held->count, 40'003u);
}

// Records from many threads while flushes take the entries out: none lost
// or counted twice (run it under ThreadSanitizer too).
TEST(TelemetryStress, RecordsWhileFlushingLoseNothing) {
  api_stats stats;
  constexpr int threads = 8, each = 20'000;
  const std::vector<std::string> names = {"CreateFileW", "FindFirstFileExW",
                                          "a rather long statistic name that does not fit inline"};
  std::atomic<int> running{threads};
  // Halfway, each recorder waits for two flushes (else it could finish first).
  std::atomic<std::uint64_t> flushes{0};
  std::vector<std::thread> recorders;
  for (int t = 0; t < threads; ++t) {
    recorders.emplace_back([&, t] {
      for (int i = 0; i < each; ++i) {
        while (i == each / 2 && flushes.load() < 2) std::this_thread::yield();
        stats.record(names[i % names.size()], static_cast<std::uint64_t>(i % 7), i % 100 == 0 ? t + 1 : 0, "failed");
      }
      running.fetch_sub(1);
    });
  }
  std::map<std::string, std::uint64_t> count, other, failures_stored;
  std::uint64_t sum = 0;
  auto take = [&] {
    for (const ApiStatEntry& e : stats.take_entries(monotonic_ns())) {
      count[e.name] += e.count;
      other[e.name] += e.other;
      sum += e.sum;
      if (e.code != 0) ++failures_stored[e.name];
      EXPECT_LE(e.max, 6u);
    }
    flushes.fetch_add(1);
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
  EXPECT_EQ(sum, expected_sum * threads);
}

}  // namespace
}  // namespace ostrel::telemetry
