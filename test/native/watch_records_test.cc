// The change-record walks on buffers built here: FILE_NOTIFY_INFORMATION
// chains (one record, several, odd-length and truncated ones) and inotify
// event runs, plus the event names.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "watch/change_records.h"

namespace ostrel::watch {
namespace {

void put_u32(std::vector<unsigned char>& b, std::size_t at, std::uint32_t v) {
  if (b.size() < at + 4) b.resize(at + 4);
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<unsigned char>(v >> (8 * i));
}

struct notify {
  std::uint32_t action;
  std::u16string name;
};

// Lays records out as Windows does: each aligned to 4 bytes, the last with
// NextEntryOffset 0.
std::vector<unsigned char> notify_buffer(const std::vector<notify>& records) {
  std::vector<unsigned char> b;
  std::size_t at = 0;
  for (std::size_t i = 0; i < records.size(); ++i) {
    const auto& r = records[i];
    std::size_t size = 12 + r.name.size() * 2;
    std::size_t next = i + 1 < records.size() ? (size + 3) / 4 * 4 : 0;
    b.resize(at + (next ? next : size));
    put_u32(b, at, static_cast<std::uint32_t>(next));
    put_u32(b, at + 4, r.action);
    put_u32(b, at + 8, static_cast<std::uint32_t>(r.name.size() * 2));
    for (std::size_t k = 0; k < r.name.size(); ++k) {
      b[at + 12 + 2 * k] = static_cast<unsigned char>(r.name[k] & 0xFF);
      b[at + 12 + 2 * k + 1] = static_cast<unsigned char>(r.name[k] >> 8);
    }
    at += next;
  }
  return b;
}

native_string native(const char* utf8) {
  return scan::utf8_to_native(utf8);
}

TEST(WatchRecords, NotifyInformationChainsAreWalkedInOrder) {
  auto b = notify_buffer({{1, u"a.txt"}, {4, u"dir\\old"}, {5, u"dir\\new\u00e9"}, {3, u"x"}});
  std::vector<change_record> out;
  EXPECT_EQ(walk_notify_information(b.data(), b.size(), out), 4u);
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(out[0].action, 1u);
  EXPECT_EQ(out[0].name, native("a.txt"));
  EXPECT_EQ(out[1].action, 4u);
  EXPECT_EQ(out[2].name, native("dir\\new\xc3\xa9"));
  EXPECT_EQ(out[3].action, 3u);
}

TEST(WatchRecords, MalformedNotifyRecordsAreDroppedNotRead) {
  struct row {
    const char* what;
    std::vector<unsigned char> buffer;
    std::size_t expected;
  };
  auto one = notify_buffer({{2, u"gone"}});
  auto two = notify_buffer({{1, u"first"}, {1, u"second"}});
  auto name_past_end = one;
  put_u32(name_past_end, 8, 4000);  // FileNameLength beyond the buffer
  auto odd_length = one;
  put_u32(odd_length, 8, 3);  // half a UTF-16 unit
  auto next_past_end = two;
  put_u32(next_past_end, 0, 1 << 20);                        // NextEntryOffset beyond the buffer
  auto unaligned = notify_buffer({{1, u"odd"}, {1, u"x"}});  // 18 bytes, then the next record unaligned
  {
    std::vector<unsigned char> packed;
    std::size_t first = 12 + 6;
    packed.insert(packed.end(), unaligned.begin(), unaligned.begin() + static_cast<std::ptrdiff_t>(first));
    packed.insert(packed.end(), unaligned.begin() + 20, unaligned.end());
    put_u32(packed, 0, static_cast<std::uint32_t>(first));
    unaligned = packed;
  }
  auto next_inside_name = two;
  put_u32(next_inside_name, 0, 8);  // the next record would overlap this one
  std::vector<unsigned char> truncated(two.begin(), two.end() - 3);
  std::vector<row> rows = {
      {"whole single record", one, 1},
      {"name past the end", name_past_end, 0},
      {"odd name length", odd_length, 0},
      {"next record past the end", next_past_end, 1},
      {"next record inside this one", next_inside_name, 0},
      {"records not aligned to 4 bytes", unaligned, 2},
      {"second record cut short", truncated, 1},
      {"fewer bytes than a header", std::vector<unsigned char>(one.begin(), one.begin() + 7), 0},
  };
  for (const auto& r : rows) {
    std::vector<change_record> out;
    EXPECT_EQ(walk_notify_information(r.buffer.data(), r.buffer.size(), out), r.expected) << r.what;
    EXPECT_EQ(out.size(), r.expected) << r.what;
  }
}

std::vector<unsigned char> inotify_buffer(const std::vector<inotify_record>& records, std::size_t pad = 16) {
  std::vector<unsigned char> b;
  for (const auto& r : records) {
    std::size_t at = b.size();
    std::size_t len = r.name.empty() ? 0 : (r.name.size() + pad) / pad * pad;
    b.resize(at + 16 + len);
    put_u32(b, at, static_cast<std::uint32_t>(r.wd));
    put_u32(b, at + 4, r.mask);
    put_u32(b, at + 8, r.cookie);
    put_u32(b, at + 12, static_cast<std::uint32_t>(len));
    std::copy(r.name.begin(), r.name.end(), b.begin() + static_cast<std::ptrdiff_t>(at + 16));
  }
  return b;
}

TEST(WatchRecords, InotifyEventsAreWalkedAndCutRecordsDropped) {
  auto b = inotify_buffer({{1, 0x100, 0, "new.txt"}, {2, 0x40, 7, "moved"}, {1, 0x400, 0, ""}});
  std::vector<inotify_record> out;
  EXPECT_EQ(walk_inotify_events(b.data(), b.size(), out), 3u);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].name, "new.txt");
  EXPECT_EQ(out[1].cookie, 7u);
  EXPECT_EQ(out[1].wd, 2);
  EXPECT_EQ(out[2].name, "");
  // The last record cut short: the two before it survive.
  std::vector<inotify_record> cut;
  auto c = inotify_buffer({{1, 0x100, 0, "a"}, {1, 0x100, 0, "b"}, {1, 0x100, 0, "c"}});
  EXPECT_EQ(walk_inotify_events(c.data(), c.size() - 5, cut), 2u);
}

TEST(WatchRecords, LoneRenameRecordsBecomeAddsAndRemovals) {
  // Each row: the actions of one buffer, and what they must become.
  struct row {
    const char* what;
    std::vector<std::uint32_t> in;
    std::vector<std::uint32_t> out;
  } rows[] = {
      {"a rename inside the tree stays a pair", {4, 5}, {4, 5}},
      {"moved in (Wine: a lone new name)", {5}, {1}},
      {"moved out (Wine: a lone old name)", {4}, {2}},
      {"out, then in", {4, 1, 5}, {2, 1, 1}},
      {"two pairs back to back", {4, 5, 4, 5}, {4, 5, 4, 5}},
      {"a lone old name before a pair", {4, 4, 5}, {2, 4, 5}},
      {"a new name then an old name: neither paired", {5, 4}, {1, 2}},
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
  struct row {
    std::string name;
    std::size_t prefix;
  } rows[] = {
      {"plain/name.txt", npos},   {"caf\xc3\xa9/\xe2\x82\xac/\xf0\x9f\x98\x80", npos}, {"a/b\xff.t/c", 6}, {"\xff", 1},
      {"ok/\xc0\xaf", 5},          // overlong '/'
      {"ok/\xed\xa0\x80/x", 6},    // a surrogate
      {"ok/\xf4\x90\x80\x80", 7},  // past U+10FFFF
      {"ok/\xe2\x82", 5},          // cut short
      {"x\xe2\x82/y", 3},
  };
  for (const auto& r : rows) EXPECT_EQ(invalid_name_prefix(r.name), r.prefix) << r.name;
#endif
}

}  // namespace
}  // namespace ostrel::watch
