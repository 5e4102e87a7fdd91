// The order of a session's events: records are classified in parallel and
// finish in any order, yet take_deliverable hands them on in record order,
// each loop on its own, while flushes run concurrently (run it under
// ThreadSanitizer too).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "watch/watch_data.h"

namespace ostrel::watch {
namespace {

TEST(WatchOrder, RecordsFinishedInAnyOrderAreDeliveredInRecordOrder) {
  WatchData w(scan::utf8_to_native("/root"), {}, {}, {}, nullptr);
  constexpr int per_loop = 20000;
  constexpr int threads = 4;
  // Sequence numbers handed out as the loops would, then finished in a
  // shuffled order by several threads; every 7th record yields no event.
  std::vector<std::pair<bool, std::uint64_t>> work;
  for (int i = 0; i < per_loop; ++i) {
    for (bool dir : {false, true}) work.emplace_back(dir, w.next_sequence(dir));
  }
  std::shuffle(work.begin(), work.end(), std::mt19937(42));
  std::atomic<std::size_t> next{0};
  std::atomic<int> running{threads};
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&] {
      for (std::size_t i; (i = next.fetch_add(1)) < work.size();) {
        auto [dir, seq] = work[i];
        std::vector<watch_event> events;
        if (seq % 7 != 0) {
          watch_event e;
          e.action = dir ? 2 : 1;
          e.info.ino = seq;
          events.push_back(std::move(e));
        }
        w.finish_record(dir, seq, std::move(events));
      }
      running.fetch_sub(1);
    });
  }
  std::vector<watch_event> delivered;
  while (running.load() > 0) {
    auto batch = w.take_deliverable();
    for (auto& e : batch) delivered.push_back(std::move(e));
  }
  for (auto& t : pool) t.join();
  for (auto& e : w.take_deliverable()) delivered.push_back(std::move(e));

  std::uint64_t expected[2] = {0, 0};
  std::size_t count = 0;
  for (const auto& e : delivered) {
    const int loop = e.action == 2 ? 1 : 0;
    while (expected[loop] % 7 == 0) ++expected[loop];  // records without events
    ASSERT_EQ(e.info.ino, expected[loop]) << "loop " << loop << " out of order";
    ++expected[loop];
    ++count;
  }
  std::size_t with_events = 0;
  for (int i = 0; i < per_loop; ++i) with_events += i % 7 != 0 ? 2 : 0;
  EXPECT_EQ(count, with_events);
}

}  // namespace
}  // namespace ostrel::watch
