// Records finish in any order, yet never overtake an earlier one touching
// their item (the name, a folder above or below, a rename's old name), with
// flushes meanwhile (run under ThreadSanitizer too); others do not wait.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "watch/watch_data.h"

namespace ostrel::watch {
namespace {

// "Touching", written apart from the module's.
bool touches(const std::string& a, const std::string& b) {
  const std::string& s = a.size() <= b.size() ? a : b;
  const std::string& l = a.size() <= b.size() ? b : a;
  if (s.empty()) return true;
  return l.rfind(s, 0) == 0 && (l.size() == s.size() || l[s.size()] == '/');
}

std::string native(const std::string& name) {
  std::string out = name;
#ifdef _WIN32
  std::replace(out.begin(), out.end(), '/', '\\');
#endif
  return out;
}

TEST(WatchOrder, RecordsOfOneItemKeepTheirOrderWhateverOrderTheyFinishIn) {
  WatchData w(scan::utf8_to_native("/root"), {}, {}, {}, nullptr);
  const std::vector<std::string> names = {"a", "a/x", "a/x/1", "a/y", "b", "b/z", "ab", "c", "", "a/xy"};
  constexpr int per_loop = 20000;
  constexpr int threads = 4;
  std::mt19937 rng(42);
  // By (loop, sequence): the name, and a rename's old name.
  struct rec {
    std::string name, pair;
  };
  std::map<std::pair<bool, std::uint64_t>, rec> recs;
  std::vector<std::pair<bool, std::uint64_t>> work;
  for (int i = 0; i < per_loop; ++i) {
    for (bool dir : {false, true}) {
      std::string name = names[rng() % names.size()];
      const bool old_half = rng() % 10 == 0;
      std::uint64_t seq = w.next_sequence(dir, scan::utf8_to_native(native(name)), old_half ? 4 : 1);
      recs[{dir, seq}] = {name, ""};
      work.emplace_back(dir, seq);
      if (old_half) {
        std::string to = names[rng() % names.size()];
        std::uint64_t s2 = w.next_sequence(dir, scan::utf8_to_native(native(to)), 5);
        recs[{dir, s2}] = {to, name};
        work.emplace_back(dir, s2);
      }
    }
  }
  std::shuffle(work.begin(), work.end(), rng);
  std::atomic<std::size_t> next{0};
  std::atomic<int> running{threads};
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&] {
      for (std::size_t i; (i = next.fetch_add(1)) < work.size();) {
        auto [dir, seq] = work[i];
        std::vector<watch_event> events;
        if (seq % 7 != 0) {
          watch_event e;  // a change: never taken for a repeated add
          e.action = 3;
          e.info.size = dir ? 1 : 0;
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
    for (auto& e : w.take_deliverable()) delivered.push_back(std::move(e));
  }
  for (auto& t : pool) t.join();
  for (auto& e : w.take_deliverable()) delivered.push_back(std::move(e));

  std::size_t expected = 0;
  for (const auto& [key, r] : recs) expected += key.second % 7 != 0;
  ASSERT_EQ(delivered.size(), expected);
  std::vector<std::pair<std::uint64_t, const rec*>> seen[2];
  for (const auto& e : delivered) {
    const bool dir = e.info.size == 1;
    const rec& r = recs.at({dir, e.info.ino});
    for (const auto& [seq, other] : seen[dir]) {
      if (seq < e.info.ino) continue;
      // Delivered before this one from a later record: must not touch.
      ASSERT_FALSE(touches(other->name, r.name) || (!other->pair.empty() && touches(other->pair, r.name)) ||
                   (!r.pair.empty() && touches(r.pair, other->name)))
          << "'" << other->name << "' [" << other->pair << "] (record " << seq << ") overtook '" << r.name << "' ["
          << r.pair << "] (record " << e.info.ino << ")";
    }
    seen[dir].emplace_back(e.info.ino, &r);
  }
}

TEST(WatchOrder, ASlowRecordHoldsBackOnlyWhatTouchesItsItem) {
  WatchData w(scan::utf8_to_native("/root"), {}, {}, {}, nullptr);
  const std::vector<std::string> after = {"b", "a/x", "c/d", "a", "ab"};
  const std::uint64_t slow = w.next_sequence(false, scan::utf8_to_native(native("a/x")), 1);
  std::vector<std::uint64_t> seqs;
  for (const auto& n : after) seqs.push_back(w.next_sequence(false, scan::utf8_to_native(native(n)), 1));
  for (std::size_t i = 0; i < after.size(); ++i) {
    watch_event e;
    e.action = 3;
    e.info.ino = seqs[i];
    w.finish_record(false, seqs[i], {e});
  }
  std::vector<std::uint64_t> got;
  for (const auto& e : w.take_deliverable()) got.push_back(e.info.ino);
  // "b", "c/d" and "ab" pass; "a/x" and "a" wait for the slow "a/x".
  EXPECT_EQ(got, (std::vector<std::uint64_t>{seqs[0], seqs[2], seqs[4]}));
  watch_event e;
  e.action = 3;
  e.info.ino = slow;
  w.finish_record(false, slow, {e});
  got.clear();
  for (const auto& ev : w.take_deliverable()) got.push_back(ev.info.ino);
  EXPECT_EQ(got, (std::vector<std::uint64_t>{slow, seqs[1], seqs[3]}));
}

}  // namespace
}  // namespace ostrel::watch
