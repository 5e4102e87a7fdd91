// The record walks against generated buffers (whole, cut at every length,
// one header field broken); lone renames; the cut of invalid names.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <tuple>
#include <string>
#include <vector>

#include "runtime/strings.h"
#include "watch/change_records.h"

namespace ostrel::watch {
namespace {

using bytes = std::vector<unsigned char>;

void put_u32(bytes& b, std::size_t at, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<unsigned char>(v >> (8 * i));
}

native_string native(const char* utf8) {
  return scan::utf8_to_native(utf8);
}

struct notify {
  std::uint32_t action;
  std::u16string name;
};

// Records padded to 4 bytes (Windows) or not (Wine may); `starts` gets where each begins.
bytes notify_buffer(const std::vector<notify>& records, bool aligned, std::vector<std::size_t>& starts) {
  bytes b;
  starts.clear();
  for (std::size_t i = 0; i < records.size(); ++i) {
    const std::size_t at = b.size(), size = 12 + records[i].name.size() * 2;
    const std::size_t next = i + 1 == records.size() ? 0 : aligned ? (size + 3) / 4 * 4 : size;
    starts.push_back(at);
    b.resize(at + (next ? next : size));
    put_u32(b, at, static_cast<std::uint32_t>(next));
    put_u32(b, at + 4, records[i].action);
    put_u32(b, at + 8, static_cast<std::uint32_t>(size - 12));
    for (std::size_t k = 0; k < records[i].name.size(); ++k) {
      b[at + 12 + 2 * k] = static_cast<unsigned char>(records[i].name[k] & 0xFF);
      b[at + 13 + 2 * k] = static_cast<unsigned char>(records[i].name[k] >> 8);
    }
  }
  return b;
}

std::vector<notify> random_notify(std::mt19937& rng) {
  static const char16_t units[] = u"ab.\\\u00e9\u4e2d ";
  std::vector<notify> out(1 + rng() % 6);
  for (auto& r : out) {
    r.action = 1 + rng() % 5;
    for (std::size_t n = rng() % 9; n > 0; --n) r.name.push_back(units[rng() % 7]);
  }
  return out;
}

std::vector<std::pair<std::uint32_t, native_string>> walk(const bytes& b, std::size_t size) {
  std::vector<change_record> out;
  const std::size_t n = walk_notify_information(b.data(), size, out);
  EXPECT_EQ(n, out.size());
  std::vector<std::pair<std::uint32_t, native_string>> got;
  for (auto& r : out) got.emplace_back(r.action, r.name);
  return got;
}

// Cut short: the records wholly within; one header broken: those before it (and it, if readable).
TEST(WatchRecords, NotifyChainsGiveBackTheirRecordsAndNothingPastTheBytes) {
  ::testing::internal::CaptureStderr();  // what is dropped is logged
  std::mt19937 rng(1);
  for (int round = 0; round < 200; ++round) {
    const std::vector<notify> model = random_notify(rng);
    std::vector<std::pair<std::uint32_t, native_string>> expected;
    for (const auto& r : model) expected.emplace_back(r.action, scan::utf8_to_native(to_utf8(r.name)));
    std::vector<std::size_t> starts;
    const bytes b = notify_buffer(model, round % 2, starts);
    for (std::size_t cut = 0; cut <= b.size(); ++cut) {
      std::size_t whole = 0;
      while (whole < model.size() && starts[whole] + 12 + model[whole].name.size() * 2 <= cut) ++whole;
      ASSERT_EQ(walk(b, cut), decltype(expected)(expected.begin(), expected.begin() + whole))
          << "round " << round << ", cut at " << cut;
    }
    const std::size_t k = rng() % model.size(), at = starts[k], name = model[k].name.size() * 2;
    const bool last = k + 1 == model.size();
    // Each: the field broken (8 the name's length, 0 the next offset), its value, the records kept.
    const std::tuple<std::size_t, std::size_t, std::size_t> cases[] = {
        {8, b.size(), k},               // a name past the end
        {8, name + 1, k},               // half a UTF-16 unit
        {0, 11 + name, k},              // the next record inside this one
        {0, b.size() - at + 1, k + 1},  // the next record past the end
    };
    for (const auto& [field, value, kept] : cases) {
      if (last && field == 0) continue;
      bytes bad = b;
      put_u32(bad, at + field, static_cast<std::uint32_t>(value));
      ASSERT_EQ(walk(bad, bad.size()), decltype(expected)(expected.begin(), expected.begin() + kept))
          << "round " << round << ", field " << field << " = " << value;
    }
  }
  ::testing::internal::GetCapturedStderr();
}

// Names NUL-padded to 16 bytes (or none).
TEST(WatchRecords, InotifyRunsGiveBackTheirRecordsAndNothingPastTheBytes) {
  ::testing::internal::CaptureStderr();
  std::mt19937 rng(2);
  for (int round = 0; round < 200; ++round) {
    std::vector<inotify_record> model(1 + rng() % 6);
    bytes b;
    std::vector<std::size_t> ends;
    for (auto& r : model) {
      r.wd = static_cast<int>(rng() % 100);
      r.mask = static_cast<std::uint32_t>(rng());
      r.cookie = static_cast<std::uint32_t>(rng());
      for (std::size_t n = rng() % 20; n > 0; --n) r.name.push_back("ab.\xc3\xa9 "[rng() % 6]);
      const std::size_t at = b.size(), len = r.name.empty() ? 0 : (r.name.size() + 16) / 16 * 16;
      b.resize(at + 16 + len);
      put_u32(b, at, static_cast<std::uint32_t>(r.wd));
      put_u32(b, at + 4, r.mask);
      put_u32(b, at + 8, r.cookie);
      put_u32(b, at + 12, static_cast<std::uint32_t>(len));
      std::copy(r.name.begin(), r.name.end(), b.begin() + static_cast<std::ptrdiff_t>(at + 16));
      ends.push_back(b.size());
    }
    for (std::size_t cut = 0; cut <= b.size(); ++cut) {
      std::vector<inotify_record> out;
      const std::size_t n = walk_inotify_events(b.data(), cut, out);
      std::size_t whole = 0;
      while (whole < model.size() && ends[whole] <= cut) ++whole;
      ASSERT_EQ(n, whole) << "round " << round << ", cut at " << cut;
      ASSERT_EQ(out.size(), whole);
      for (std::size_t i = 0; i < whole; ++i) {
        EXPECT_EQ(std::tie(out[i].wd, out[i].mask, out[i].cookie, out[i].name),
                  std::tie(model[i].wd, model[i].mask, model[i].cookie, model[i].name));
      }
    }
  }
  ::testing::internal::GetCapturedStderr();
}
TEST(WatchRecords, LoneRenameRecordsBecomeAddsAndRemovals) {
  struct row {
    const char* what;
    std::vector<std::uint32_t> in;
    std::vector<std::uint32_t> out;
  } rows[] = {
      {"a rename inside the tree stays a pair", {4, 5}, {4, 5}},
      {"moved in (Wine: a lone new name)", {5}, {1}},
      {"moved out (Wine: a lone old name)", {4}, {2}},
      {"a lone old name before a pair", {4, 4, 5}, {2, 4, 5}},
      {"other actions untouched", {1, 2, 3, 7}, {1, 2, 3, 7}},
  };
  for (const auto& r : rows) {
    std::vector<change_record> records;
    for (auto a : r.in) records.push_back({a, native("x")});
    settle_unpaired_renames(records);
    std::vector<std::uint32_t> got;
    for (const auto& c : records) got.push_back(c.action);
    EXPECT_EQ(got, r.out) << r.what;
  }
}

TEST(WatchRecords, InvalidNamesAreCutAtTheirFirstBadComponent) {
  constexpr auto npos = native_string_view::npos;
#ifdef _WIN32
  const native_string lone_high = native_string(L"ok\\a") + wchar_t(0xD800) + L"b\\c";
  const native_string pair = native_string(L"ok\\") + wchar_t(0xD83D) + wchar_t(0xDE00) + L"\\c";
  const native_string lone_low = native_string(L"") + wchar_t(0xDC00) + L"\\c";
  EXPECT_EQ(invalid_name_prefix(lone_high), 6u);
  EXPECT_EQ(invalid_name_prefix(pair), npos);
  EXPECT_EQ(invalid_name_prefix(lone_low), 1u);
#else
  const std::pair<std::string, std::size_t> rows[] = {
      {"caf\xc3\xa9/\xe2\x82\xac/\xf0\x9f\x98\x80", npos},
      {"a/b\xff.t/c", 6},
      {"ok/\xc0\xaf", 5},          // overlong '/'
      {"ok/\xed\xa0\x80/x", 6},    // a surrogate
      {"ok/\xf4\x90\x80\x80", 7},  // past U+10FFFF
      {"ok/\xe2\x82", 5},          // cut short
      {"x\xe2\x82/y", 3},
  };
  for (const auto& [name, prefix] : rows) EXPECT_EQ(invalid_name_prefix(name), prefix) << name;
#endif
}

}  // namespace
}  // namespace ostrel::watch
