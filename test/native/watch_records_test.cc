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

}  // namespace
}  // namespace ostrel::watch
