// The media bridge's native logic: names, statistics, library paths and
// layouts, the mailbox under notifications from several threads, ELF checks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "media/corvex_names.h"
#ifndef _WIN32
#include "media/elf_check.h"
#endif
#include "media/media_stats.h"
#include "media/player_core.h"
#include "media/sdk_paths.h"

namespace ostrel::media {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST(MediaNames, ListenerNamesCompareExactlyAndFallBackToInfo) {
  const std::int32_t info = listener_code("info");
  EXPECT_NE(listener_code("prepared"), info);
  for (const char* name : {"Prepared", "prepared ", "", "stop"}) EXPECT_EQ(listener_code(name), info) << name;
}

TEST(MediaStats, CostsOfMaps) {
  EXPECT_EQ(t3_cost({{"startMs", "1000"}}), -1000);  // no end: reported as it is
  EXPECT_EQ(t3_cost({}), 0);
  for (const char* bad : {"soon", "12x", "", "1 "}) {
    EXPECT_THROW(t3_cost({{"startMs", bad}}), std::invalid_argument) << bad;
  }
  EXPECT_THROW(t3_cost({{"endMs", "99999999999999999999999"}}), std::out_of_range);
}

TEST(MediaStats, AFailureNeverRecordsAsSuccess) {
  EXPECT_EQ(aggregate_code(true, 5), 0);
  EXPECT_EQ(aggregate_code(false, 0), -1);
  EXPECT_EQ(aggregate_code(false, 126), 126);
}

TEST(MediaPaths, LibraryPathSeparators) {
  const std::tuple<const char*, char, const char*> rows[] = {
      {"", '\\', "lib.dll"},           {"D:\\x", '\\', "D:\\x\\lib.dll"}, {"D:\\x\\", '\\', "D:\\x\\lib.dll"},
      {"D:/x/", '\\', "D:/x/lib.dll"}, {"/opt/x", '/', "/opt/x/lib.dll"}, {"/opt/x\\", '/', "/opt/x\\lib.dll"}};
  for (const auto& [dir, sep, out] : rows) EXPECT_EQ(join_library_path(dir, "lib.dll", sep), out) << dir;
}

TEST(MediaPaths, OnlyAbsoluteFoldersAreAccepted) {
#ifdef _WIN32
  const std::pair<const char*, bool> rows[] = {
      {"", false},     {"..\\x", false}, {"C:x", false},           {"\\x", false},        {"/x", false},
      {"C:\\x", true}, {"C:/x", true},   {"\\\\srv\\share", true}, {"\\\\?\\C:\\x", true}};
#else
  const std::pair<const char*, bool> rows[] = {{"", false}, {"../x", false}, {"/x", true}};
#endif
  for (const auto& [dir, absolute] : rows) EXPECT_EQ(is_absolute_folder(dir), absolute) << dir;
}

fs::path native(std::initializer_list<const char*> parts) {
#ifdef _WIN32
  fs::path p = "X:\\";
#else
  fs::path p = "/";
#endif
  for (const char* part : parts) p /= part;
  return p;
}

TEST(MediaPaths, LayoutChoice) {
  EXPECT_EQ(choose_layout(native({"app", "build", "Release", "ostrel.node"})), sdk_layout::development);
  EXPECT_EQ(choose_layout(native({"app", "Build", "Release", "ostrel.node"})), sdk_layout::installed);
  EXPECT_EQ(choose_layout(native({"app", "build", "ostrel.node"})), sdk_layout::installed);
  EXPECT_EQ(choose_layout(fs::path("ostrel.node")), sdk_layout::installed);
  EXPECT_EQ(choose_layout(fs::path()), sdk_layout::installed);
  // Nearest first, the checkout's own folder last.
  std::vector<std::string> labels;
  for (const auto& c : development_candidates(native({"a", "b", "c", "app", "build", "Release", "ostrel.node"}))) {
    labels.push_back(c.label);
  }
  EXPECT_EQ(labels, (std::vector<std::string>{"win_relative_corvex", "win_dev_workspace", "win_dev_lib"}));
  // A shallow module: the ancestors stop at the root.
  EXPECT_EQ(development_candidates(native({"build", "Release", "ostrel.node"}))[0].dir, native({"assets", "corvex"}));
  EXPECT_TRUE(installed_candidates(fs::path()).empty());
  EXPECT_EQ(path_from_utf8(path_to_utf8(native({"d\xC3\xA9j\xC3\xA0", "x"}))), native({"d\xC3\xA9j\xC3\xA0", "x"}));
}

void notify(player_mailbox& m, std::int32_t what, std::int32_t e1 = 0, std::int32_t e2 = 0,
            const corvex_string_map* info = nullptr) {
  const corvex_listener* l = m.listener();
  l->notify(l->context, what, e1, e2, info);
}

TEST(MediaMailbox, StateFlagsFollowEvents) {
  player_mailbox m(false);
  // Each row: a notification (what, extra1), then paused and buffering.
  const std::tuple<std::int32_t, std::int32_t, bool, bool> rows[] = {
      {6, 0, false, false},     {200, 701, false, true}, {7, 0, true, true},  {6, 0, false, true},
      {200, 702, false, false}, {200, 701, false, true}, {2, 0, true, false}, {6, 0, false, false},
      {200, 701, false, true},  {8, 0, true, false}};
  for (const auto& [what, extra1, paused, buffering] : rows) {
    notify(m, what, extra1);
    EXPECT_EQ(std::make_pair(m.paused(), m.buffering()), std::make_pair(paused, buffering)) << what << "/" << extra1;
  }
}

TEST(MediaMailbox, PrepareOutcomes) {
  player_mailbox m(false);
  auto id = m.begin_prepare();
  notify(m, 1);  // the answer may come before the wait
  EXPECT_EQ(m.wait_prepare(id, 1s), prepare_outcome::prepared);

  id = m.begin_prepare();
  notify(m, 8);  // a late stop does not answer a preparation
  EXPECT_EQ(m.wait_prepare(id, 50ms), prepare_outcome::timed_out);
  notify(m, 100, -1004);
  EXPECT_EQ(m.wait_prepare(id, 1s), prepare_outcome::failed);

  id = m.begin_prepare();
  m.cancel_prepare();
  EXPECT_EQ(m.wait_prepare(id, 1s), prepare_outcome::failed);

  auto first = m.begin_prepare();
  auto second = m.begin_prepare();
  notify(m, 1);
  EXPECT_EQ(m.wait_prepare(first, 1s), prepare_outcome::failed);  // superseded
  EXPECT_EQ(m.wait_prepare(second, 1s), prepare_outcome::prepared);
}

TEST(MediaMailbox, NotificationsFromSeveralThreadsKeepTheirOrderAndDropsAreCounted) {
  player_mailbox m(true);
  constexpr int threads = 8;
  constexpr int each = 2000;
  std::vector<std::thread> senders;
  for (int t = 0; t < threads; ++t) {
    senders.emplace_back([&m, t] {
      corvex_string_pair pair{"k", "v"};
      corvex_string_map map{1, &pair};
      for (int i = 0; i < each; ++i) notify(m, 3, i, t, i % 2 ? &map : nullptr);
    });
  }
  std::vector<notification> all;
  std::size_t dropped_total = 0;
  while (all.size() + dropped_total < static_cast<std::size_t>(threads * each)) {
    std::size_t dropped = 0;
    auto batch = m.take(500, dropped);
    dropped_total += dropped;
    all.insert(all.end(), batch.begin(), batch.end());
    std::this_thread::yield();
  }
  for (auto& s : senders) s.join();
  // Each thread's in the order sent (some dropped while the queue was full).
  std::vector<int> last(threads, -1);
  for (const notification& n : all) {
    ASSERT_GT(n.extra1, last[n.extra2]);
    last[n.extra2] = n.extra1;
    EXPECT_EQ(n.has_info, n.extra1 % 2 == 1);
  }
  EXPECT_EQ(m.notifications(), static_cast<std::size_t>(threads * each));
  m.release();
}

TEST(MediaMailbox, AFullQueueDropsAndCountsTheRest) {
  player_mailbox m(true);
  const std::size_t total = player_mailbox::max_queued + 25;
  for (std::size_t i = 0; i < total; ++i) notify(m, 3, static_cast<std::int32_t>(i));
  std::size_t dropped = 0;
  auto first = m.take(10, dropped);
  EXPECT_EQ(dropped, 25u);
  ASSERT_EQ(first.size(), 10u);
  EXPECT_EQ(first.front().extra1, 0);
  auto rest = m.take(static_cast<std::size_t>(-1), dropped);
  EXPECT_EQ(dropped, 0u);
  EXPECT_EQ(rest.size(), player_mailbox::max_queued - 10);
  EXPECT_EQ(rest.back().extra1, static_cast<std::int32_t>(player_mailbox::max_queued - 1));
  m.release();
}

TEST(MediaMailbox, AProbeMailboxKeepsNoQueueAndNullMapEntriesAreEmpty) {
  corvex_string_pair pair{nullptr, nullptr};
  corvex_string_map map{1, &pair};
  player_mailbox probe(false);
  player_mailbox m(true);
  notify(probe, 200, 3, 0, &map);
  notify(m, 200, 3, 0, &map);
  EXPECT_TRUE(probe.take_all().empty());
  auto all = m.take_all();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].info, (decltype(all[0].info){{"", ""}}));
  m.release();
}

#ifndef _WIN32
std::string own_executable() {
  std::ifstream in("/proc/self/exe", std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// This executable (a PIE) cut short fails below one threshold (its last
// segment's end) and passes from there on; random header bytes never crash.
TEST(MediaElf, CutsBelowTheLastSegmentFailAndNothingCrashes) {
  std::string whole = own_executable();
  ASSERT_GT(whole.size(), 4096u);
  std::string reason;
  ASSERT_TRUE(elf_object_complete(whole, whole.size(), reason)) << reason;
  std::size_t threshold = 0;
  for (std::size_t cut = 0; cut <= whole.size(); cut += std::max<std::size_t>(1, whole.size() / 257)) {
    bool ok = elf_object_complete(std::string_view(whole).substr(0, cut), cut, reason);
    if (ok && threshold == 0) threshold = cut;
    if (threshold != 0) {
      EXPECT_TRUE(ok) << cut;
    }
  }
  EXPECT_GT(threshold, 64u);
  std::minstd_rand rng(7);
  for (int i = 0; i < 20000; ++i) {
    std::string bytes = whole.substr(0, 4096);
    for (int k = 0; k < 4; ++k) bytes[rng() % 128] = static_cast<char>(rng());
    elf_object_complete(bytes, whole.size(), reason);
  }
  // Another machine's object is refused.
  std::string other = whole;
  other[18] = 0x28;  // e_machine: ARM
  EXPECT_FALSE(elf_object_complete(other, other.size(), reason));
  EXPECT_EQ(reason, "not an ELF object for x86-64");
}
#endif

}  // namespace
}  // namespace ostrel::media
