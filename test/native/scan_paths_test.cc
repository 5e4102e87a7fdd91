// Path fields of FileInfo, the time conversions, leave-list paths and the
// batch encoding that carries records to script.
#include <gtest/gtest.h>

#include <cmath>

#include "runtime/strings.h"
#include "scan/batch_encoding.h"
#include "scan/file_info.h"
#include "scan/leave_list.h"

namespace ostrel::scan {
namespace {

#ifdef _WIN32
const native_string root = L"C:\\data\\sync";
#define SEP "\\"
#else
const native_string root = "/data/sync";
#define SEP "/"
#endif

native_string under_root(const char* relative) {
  return root + native_separator + utf8_to_native(relative);
}

// Each relative path with the relativeDir script gets: a first-level dot
// folder loses its dot (only the first byte is looked at). The walk's own
// constructor and the general one agree on every field.
TEST(FileInfoPaths, FieldsOfARelativePathWhicheverWayItIsMade) {
  const std::string long_name(200, 'n');
  const std::pair<std::string, std::string> rows[] = {
      {"a.txt", ""},
      {".cache" SEP "x.bin", "cache"},
      {".cache" SEP "sub" SEP "x.bin", "cache" SEP "sub"},
      {"a" SEP ".cache" SEP "x.bin", "a" SEP ".cache"},
      {"d1" SEP "\xD1\x84\xD0\xBE" SEP "caf\xC3\xA9.txt", "d1" SEP "\xD1\x84\xD0\xBE"},
      {long_name + SEP + long_name + SEP "f", long_name + SEP + long_name},
      {"..x" SEP "y", ".x"},
  };
  for (const auto& [rel, dir] : rows) {
    native_string path = under_root(rel.c_str());
    FileInfo general(path, root);
    FileInfo walked = FileInfo::from_walk(path, root.size() + 1, path.find_last_of(native_separator) + 1);
    for (const FileInfo* f : {&general, &walked}) {
      EXPECT_EQ(f->relativePath, rel);
      EXPECT_EQ(f->relativeDir, dir) << rel;
      EXPECT_EQ(f->name, rel.substr(rel.rfind(SEP[0]) + 1)) << rel;
      EXPECT_EQ(f->absolutePath, native_to_utf8(root) + SEP + rel);
    }
  }
}

TEST(FileTimes, KeepSubMillisecondPartsAndNegativeTimes) {
  constexpr std::int64_t epoch = 116444736000000000LL;
  EXPECT_DOUBLE_EQ(filetime_to_ms(epoch), 0.0);
  EXPECT_DOUBLE_EQ(filetime_to_ms(epoch + 12345678), 1234.5678);
  // 1.5 ms before 1970: whole seconds -1, remainder 998.5 ms.
  EXPECT_DOUBLE_EQ(filetime_to_ms(epoch - 15000), -1.5);
  EXPECT_DOUBLE_EQ(filetime_to_ms(0), -11644473600000.0);
  EXPECT_DOUBLE_EQ(unix_time_to_ms(1700000000, 123456789), 1700000000123.456789);
  EXPECT_DOUBLE_EQ(floor_to_second(1234.5678), 1000.0);
  EXPECT_DOUBLE_EQ(floor_to_second(-1.5), -1000.0);
  EXPECT_DOUBLE_EQ(floor_to_second(3000.0), 3000.0);
}

TEST(LeaveList, RelativeAndAbsoluteEntries) {
  std::vector<native_string> entries = {utf8_to_native("a" SEP "b"), under_root("c"), utf8_to_native("d" SEP),
                                        utf8_to_native(SEP "elsewhere" SEP "x")};
  leave_list list(entries, root);
  EXPECT_TRUE(list.contains(utf8_to_native("a" SEP "b")));
  EXPECT_TRUE(list.contains(utf8_to_native("c")));
  EXPECT_TRUE(list.contains(utf8_to_native("d")));
  EXPECT_FALSE(list.contains(utf8_to_native("a")));
  EXPECT_FALSE(list.contains(utf8_to_native("elsewhere" SEP "x")));
#ifdef _WIN32
  leave_list mixed({L"A/B"}, root);
  EXPECT_TRUE(mixed.contains(L"a\\b"));
#endif
}

// Decodes one record of an encoded batch as the script side does.
std::string field(const encoded_batch& b, std::size_t record, std::size_t start_field) {
  const double* n = &b.numbers[record * fields_per_record];
  auto start = static_cast<std::size_t>(n[start_field]);
  auto len = static_cast<std::size_t>(n[start_field + 1]);
  const auto flags = static_cast<unsigned>(n[f_flags]);
  const bool wide = flags & flag_wide;
  const std::vector<std::size_t>& pieces = wide ? b.pieces16 : b.pieces8;
  const std::size_t piece = flags >> piece_shift;
  EXPECT_LT(piece, pieces.size());
  if (piece >= pieces.size()) return {};
  // The record lies within its piece.
  const std::size_t end = piece + 1 < pieces.size() ? pieces[piece + 1] : (wide ? b.text16.size() : b.text8.size());
  start += pieces[piece];
  EXPECT_LE(start + len, end);
  if (wide) return to_utf8(std::u16string_view(b.text16).substr(start, len));
  return b.text8.substr(start, len);
}

// Every record's four path parts read back from the batch, files first.
void expect_parts(const encoded_batch& b, const std::vector<FileInfo>& files, const std::vector<FileInfo>& folders) {
  std::size_t i = 0;
  for (const auto* list : {&files, &folders}) {
    for (const FileInfo& f : *list) {
      EXPECT_EQ(field(b, i, f_abs_start), f.absolutePath);
      EXPECT_EQ(field(b, i, f_name_start), f.name);
      EXPECT_EQ(field(b, i, f_dir_start), f.relativeDir);
      EXPECT_EQ(field(b, i, f_rel_start), f.relativePath);
      ++i;
    }
  }
}

// An update's text is cut into pieces small enough for the script engine's
// young generation, between records, however long the paths are; every
// field reads back (on every record of a scan: scan-walk.test.js and the
// 100,000-file case of scan-session.test.js).
TEST(BatchEncoding, LongBatchesAreCutIntoPiecesBetweenRecords) {
  std::vector<FileInfo> files;
  std::vector<FileInfo> folders;
  std::string long_name(700, 'n');
  for (int i = 0; i < 3000; ++i) {
    std::string dir = "d" + std::to_string(i % 7);
    files.emplace_back(under_root((dir + SEP + std::to_string(i) + (i % 3 ? "x.bin" : long_name)).c_str()), root);
    if (i % 5 == 0)
      files.emplace_back(under_root((dir + SEP "\xC3\xA9" + std::to_string(i) + long_name).c_str()), root);
    if (i % 11 == 0) folders.emplace_back(under_root(dir.c_str()), root);
  }
  FileInfo odd;  // fields that are not parts of absolutePath (the walk's records always are)
  odd.absolutePath = "x";
  odd.name = "other";
  odd.relativePath = "elsewhere";
  odd.relativeDir = "dir";
  folders.push_back(odd);
  encoded_batch b = encode_batch(files, folders);
  EXPECT_EQ(b.file_count, files.size());
  EXPECT_GT(b.pieces8.size(), 2u);
  EXPECT_GT(b.pieces16.size(), 2u);
  for (std::size_t p = 1; p < b.pieces8.size(); ++p) {
    // A piece holds at least one record, and a piece ends only past the limit.
    EXPECT_GT(b.pieces8[p], b.pieces8[p - 1]);
    EXPECT_GE(b.pieces8[p] - b.pieces8[p - 1], text_piece_bytes);
    EXPECT_LT(b.pieces8[p] - b.pieces8[p - 1], text_piece_bytes + 4096);
  }
  expect_parts(b, files, folders);
}

}  // namespace
}  // namespace ostrel::scan
