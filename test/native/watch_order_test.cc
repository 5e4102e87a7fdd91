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

// A record that is slow to classify holds back only the records that touch
// the same item, a folder above it or an item below it, and the new name
// of a rename whose old name it touches; the rest passes it.
TEST(WatchOrder, ASlowRecordHoldsBackOnlyWhatTouchesItsItem) {
  auto native = [](const char* s) { return scan::utf8_to_native(s); };
  struct row {
    const char* name;
    std::uint32_t action;
    bool held;  // by the slow record "dir/slow.txt"
  } rows[] = {
      {"other.txt", 1, false},
      {"dir/slow.txt", 3, true},  // the same item
      {"dir/slow.txt.bak", 1, false},
      {"dir", 3, true},     // a folder above it
      {"dir/new", 1, true},  // below a held folder
      {"dirx/a", 1, false},
      {"dir/slow.txt", 4, true},   // its rename ...
      {"renamed.txt", 5, true},    // ... and the new name with it
      {"other2.txt", 1, false},
  };
  WatchData w(native("/root"), {}, {}, {}, nullptr);
  const std::uint64_t slow = w.next_sequence(false, native("dir/slow.txt"), 1);
  std::vector<std::uint64_t> seqs;
  for (const auto& r : rows) seqs.push_back(w.next_sequence(false, native(r.name), r.action));
  for (std::size_t i = 0; i < seqs.size(); ++i) {
    watch_event e;
    e.action = rows[i].action;
    e.file_name = native(rows[i].name);
    std::vector<watch_event> one;
    one.push_back(std::move(e));
    w.finish_record(false, seqs[i], std::move(one));
  }
  std::vector<native_string> passed;
  for (auto& e : w.take_deliverable()) passed.push_back(e.file_name);
  std::vector<native_string> expected;
  for (const auto& r : rows) {
    if (!r.held) expected.push_back(native(r.name));
  }
  EXPECT_EQ(passed, expected);
  // The slow one finishes: it and what it held follow, in record order.
  watch_event e;
  e.action = 1;
  e.file_name = native("dir/slow.txt");
  std::vector<watch_event> one;
  one.push_back(std::move(e));
  w.finish_record(false, slow, std::move(one));
  std::vector<native_string> rest;
  for (auto& ev : w.take_deliverable()) rest.push_back(ev.file_name);
  std::vector<native_string> expected_rest{native("dir/slow.txt")};
  for (const auto& r : rows) {
    if (r.held) expected_rest.push_back(native(r.name));
  }
  EXPECT_EQ(rest, expected_rest);
}

}  // namespace
}  // namespace ostrel::watch
