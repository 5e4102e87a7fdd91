// Event records and the queues between producers and delivery.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "main/version.h"
#include "telemetry/queues.h"
#include "telemetry/telemetry.h"
#include "telemetry/telemetry_state.h"
#include "telemetry/tvk_record.h"

namespace ostrel::telemetry {
namespace {

TEST(TelemetryRecord, RoutesTypedKeysAndKeepsTheRestAsExtras) {
  TvkRecord r = make_tvk_record(7, "hello",
                                {{"c1", "one"},
                                 {"c5", "five"},
                                 {"bl3", "base"},
                                 {"wl_avgv2", "-42"},
                                 {"w_succ", "0.5"},
                                 {"c6", "not typed"},      // only 1..5 are typed
                                 {"C1", "case matters"},   // so is the case
                                 {"wl_avgv", "no digit"},  // and the digit
                                 {"zeta", "z"},
                                 {"alpha", "a"},
                                 {"c1", "later wins"}});
  EXPECT_EQ(r.category, 7);
  EXPECT_EQ(r.msg, "hello");
  EXPECT_EQ(r.c[0], "later wins");
  EXPECT_FALSE(r.c[1].has_value());
  EXPECT_EQ(r.c[4], "five");
  EXPECT_EQ(r.bl[2], "base");
  EXPECT_EQ(r.wl_avgv[1], -42);
  EXPECT_EQ(r.w_succ, 0.5);
  std::vector<std::string> extra_keys;
  for (const auto& [k, v] : r.extra) extra_keys.push_back(k);
  EXPECT_EQ(extra_keys, (std::vector<std::string>{"C1", "alpha", "c6", "wl_avgv", "zeta"}));
}

TEST(TelemetryRecord, EmptyMessageAndBadNumbersLeaveFieldsUnset) {
  TvkRecord r = make_tvk_record(1, "",
                                {{"wl_avgv1", "12abc"},
                                 {"wl_avgv2", "99999999999"},  // beyond 32 bits
                                 {"wl_avgv3", ""},
                                 {"w_succ", "nan"},
                                 {"wl_avgv4", "2147483647"}});
  EXPECT_FALSE(r.msg.has_value());
  EXPECT_FALSE(r.wl_avgv[0].has_value());
  EXPECT_FALSE(r.wl_avgv[1].has_value());
  EXPECT_FALSE(r.wl_avgv[2].has_value());
  EXPECT_FALSE(r.w_succ.has_value());
  EXPECT_EQ(r.wl_avgv[3], 2147483647);
  EXPECT_TRUE(r.extra.empty());
}

TEST(TelemetryRecord, ModuleEventCarriesVersionAndWhat) {
  global().events.take_all();
  report_module_event("ostrel:hardwaredisk:biglist", 31, true);
  auto batch = global().events.take_all();
  ASSERT_EQ(batch.size(), 1u);
  const TvkRecord& r = batch[0];
  EXPECT_EQ(r.category, 194);
  EXPECT_FALSE(r.msg.has_value());
  EXPECT_EQ(r.wl_avgv[0], 31);
  EXPECT_EQ(r.w_succ, 1.0);
  EXPECT_EQ(r.c[0], version_text);
  ASSERT_EQ(r.extra.size(), 1u);
  EXPECT_EQ(r.extra.at("c20"), "ostrel:hardwaredisk:biglist");
}

TEST(TelemetryQueues, EventsKeepTheirOrderAcrossThreadsAndRequeue) {
  event_queue q;
  constexpr int threads = 4, each = 500;
  std::vector<std::thread> producers;
  for (int t = 0; t < threads; ++t) {
    producers.emplace_back([&q, t] {
      for (int i = 0; i < each; ++i) q.push(make_tvk_record(t, std::to_string(i), {}));
    });
  }
  for (auto& p : producers) p.join();
  auto batch = q.take_all();
  ASSERT_EQ(batch.size(), static_cast<std::size_t>(threads * each));
  EXPECT_EQ(q.size(), 0u);
  std::vector<int> next(threads, 0);
  for (const auto& r : batch) EXPECT_EQ(*r.msg, std::to_string(next[r.category]++));  // FIFO per producer

  q.push(make_tvk_record(9, "newer", {}));
  std::vector<TvkRecord> first_two(batch.begin(), batch.begin() + 2);
  q.requeue_front(std::move(first_two));
  auto again = q.take_all();
  ASSERT_EQ(again.size(), 3u);
  EXPECT_EQ(again[0].msg, batch[0].msg);
  EXPECT_EQ(again[1].msg, batch[1].msg);
  EXPECT_EQ(again[2].msg, "newer");
}

TEST(TelemetryQueues, FactsNeedASink) {
  fact_queue q;
  EXPECT_FALSE(q.post("early", {{"k", "v"}}));
  EXPECT_EQ(q.size(), 0u);
  q.set_sink_count(1);
  EXPECT_TRUE(q.post("one", {{"k", "1"}}));
  EXPECT_TRUE(q.post("two", {}));
  q.set_sink_count(0);  // the last sink went away: nothing is kept for later
  EXPECT_EQ(q.size(), 0u);
  q.set_sink_count(2);
  EXPECT_TRUE(q.post("three", {{"a", "b"}}));
  auto facts = q.take_all();
  ASSERT_EQ(facts.size(), 1u);
  EXPECT_EQ(facts[0].name, "three");
  EXPECT_EQ(facts[0].attributes.at("a"), "b");
}

}  // namespace
}  // namespace ostrel::telemetry
