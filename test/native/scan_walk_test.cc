// The walk and the metadata query over real trees, and the records they
// make.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/resource.h>
#endif

#include "runtime/runtime.h"
#include "runtime/strings.h"
#include "runtime/sync_wait.h"
#include "scan/api_compat.h"
#include "scan/batch_encoding.h"
#include "scan/file_info.h"
#include "scan/file_query.h"
#include "scan/scan_walk.h"

namespace ostrel::scan {
namespace {

namespace fs = std::filesystem;

fs::path make_tree() {
  fs::path root = fs::temp_directory_path() /
                  ("ostrel-scan-walk-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
  for (int d = 0; d < 30; ++d) {
    fs::path dir = root / ("d" + std::to_string(d)) / ("sub" + std::to_string(d % 3));
    fs::create_directories(dir);
    for (int f = 0; f < 70; ++f) std::ofstream(dir / ("f" + std::to_string(f) + ".txt")) << std::string(f, 'x');
    std::ofstream(root / ("d" + std::to_string(d)) / "top.bin") << "top";
  }
  return root;
}

// A walk of `root` with `helpers` threads sharing the metadata queries.
struct walked {
  std::shared_ptr<ScanData> data = std::make_shared<ScanData>();
  std::vector<std::string> files, folders;
  std::uint64_t total = 0, bytes = 0;
};

walked walk(const fs::path& root, unsigned helpers) {
  walked w;
  w.data->root_utf8 = native_to_utf8(root.native());
  w.data->root = walk_root(root.native());
  w.data->filters.needDirs = true;
  w.data->filters.metadata_helpers = helpers;
  w.data->set_backlog_limit(1u << 30);
  w.data->begin_work();
  run_walk(w.data);
  w.data->end_work();
  EXPECT_TRUE(w.data->finished());
  bool more = true;
  scan_update u = w.data->take_update(SIZE_MAX, more);
  EXPECT_FALSE(more);
  for (auto& f : u.files) {
    w.files.emplace_back(f.relative_path_text());
    w.bytes += f.size;
    EXPECT_GT(f.mtimeMs, 0.0);
  }
  for (auto& f : u.folders) w.folders.emplace_back(f.relative_path_text());
  w.total = w.data->totalFileCount;
  return w;
}

// Pieces of at most the number asked for, in order, files before folders.
TEST(ScanData, UpdatesAreTakenInBoundedPiecesInOrder) {
  std::mt19937 rng(4);
  for (int round = 0; round < 100; ++round) {
    ScanData data;
    data.set_backlog_limit(1u << 30);
    std::vector<std::string> files, folders, got_files, got_folders;
    for (auto n = rng() % 40; n > 0; --n) {
      FileInfo f;
      f.isFile = rng() % 3 != 0;
      f.size = f.isFile ? rng() % 1000 : 0;
      f.name = std::to_string(files.size() + folders.size());
      (f.isFile ? files : folders).push_back(f.name);
      data.collect(std::move(f), false);
    }
    for (bool more = true; more;) {
      const std::size_t limit = 1 + rng() % 8;
      scan_update u = data.take_update(limit, more);
      const std::size_t n = u.files.size() + u.folders.size();
      ASSERT_TRUE(more ? n == limit : n <= limit) << n << " records for " << limit;
      EXPECT_TRUE(u.folders.empty() || got_files.size() + u.files.size() == files.size());
      std::uint64_t size = 0;
      for (auto& f : u.files) {
        got_files.push_back(f.name);
        size += f.size;
      }
      for (auto& f : u.folders) got_folders.push_back(f.name);
      EXPECT_EQ(u.size, size);
    }
    EXPECT_EQ(got_files, files);
    EXPECT_EQ(got_folders, folders);
  }
}

// The wait for an update ends as soon as a whole update waits, the scan
// has finished or has been stopped, and not before.
TEST(ScanData, TheWaitForAnUpdateEndsWhenItIsFullOrTheScanEnds) {
  auto fill = [](ScanData& data, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
      FileInfo f;
      f.isFile = i % 2 == 0;
      data.collect(std::move(f), false);
    }
  };
  ScanData data;
  data.set_backlog_limit(1u << 30);
  data.begin_work();
  cancellation_token empty = data.update_due_token();
  fill(data, ScanData::update_record_limit - 1);
  EXPECT_FALSE(empty.is_cancellation_requested());
  fill(data, 1);
  EXPECT_TRUE(empty.is_cancellation_requested());
  // A wait that starts with a whole update waiting ends at once.
  fill(data, ScanData::update_record_limit);
  EXPECT_TRUE(data.update_due_token().is_cancellation_requested());
  bool more = false;
  data.take_update(ScanData::update_record_limit, more);
  EXPECT_TRUE(more);
  EXPECT_TRUE(data.update_due_token().is_cancellation_requested());
  data.take_update(ScanData::update_record_limit, more);
  EXPECT_FALSE(more);
  fill(data, 3);
  cancellation_token partial = data.update_due_token();
  EXPECT_FALSE(partial.is_cancellation_requested());
  data.end_work();
  EXPECT_TRUE(partial.is_cancellation_requested());
  EXPECT_TRUE(data.update_due_token().is_cancellation_requested());

  ScanData stopped;
  cancellation_token waiting = stopped.update_due_token();
  stopped.request_stop();
  EXPECT_TRUE(waiting.is_cancellation_requested());
}

// A folder skipped is named once, as script gave the root, and makes the
// scan incomplete (a loop does not); skips are logged few at a time.
TEST(ScanData, SkippedFoldersAreNamedOnceAndLoggedFewAtATime) {
  ScanData data;
  data.root_utf8 = "base/";
  data.add_looped(utf8_to_native("l"), {});
  EXPECT_TRUE(data.complete());
  ::testing::internal::CaptureStderr();
  for (int i = 0; i < 25; ++i) data.add_skipped(utf8_to_native("f" + std::to_string(i)), 24, "Too many open files");
  data.add_skipped(utf8_to_native("f0"), 24, "Too many open files");  // met again (another rule)
  std::string err = ::testing::internal::GetCapturedStderr();
  auto named = data.skipped_folders();
  ASSERT_EQ(named.size(), 25u);
  EXPECT_EQ(std::tie(named[0].path, named[0].code, named[0].reason),
            std::make_tuple(std::string("base/f0"), 24, std::string("Too many open files")));
  EXPECT_FALSE(data.complete());
  std::size_t lines = 0;
  for (std::size_t at = 0; (at = err.find("ScanAllSubFiles: skipped ", at)) != std::string::npos; ++at) ++lines;
  EXPECT_EQ(lines, ScanData::logged_skip_limit) << err;
  EXPECT_NE(err.find("more folders skipped"), std::string::npos) << err;
}

#ifndef _WIN32
// Exactly `free_slots` more descriptors while in scope (free numbers
// counted: an earlier test's threads may hold some above a hole).
class descriptor_limit {
 public:
  explicit descriptor_limit(int free_slots) {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &saved_), 0);
    int limit = 0;
    for (int free = 0; free < free_slots; ++limit) {
      if (fcntl(limit, F_GETFD) == -1) ++free;
    }
    struct rlimit low = saved_;
    low.rlim_cur = static_cast<rlim_t>(limit);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  }
  ~descriptor_limit() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &saved_), 0); }

 private:
  struct rlimit saved_;
};

// Chains of `depth` folders below p and q, a file at the top and the end of each.
fs::path make_chains(int depth) {
  fs::path base = fs::temp_directory_path() /
                  ("ostrel-scan-deep-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
  fs::create_directories(base);
  std::ofstream(base / "top.txt") << "x";
  for (const char* branch : {"p", "q"}) {
    fs::path dir = base / branch;
    fs::create_directories(dir);
    std::ofstream(dir / "shallow.txt") << "x";
    for (int i = 0; i < depth; ++i) dir /= "l" + std::to_string(i);
    fs::create_directories(dir);
    std::ofstream(dir / "leaf.txt") << "x";
  }
  return base;
}

// A walk with only `spare` descriptors free while it runs.
walked walk_with_spare(const fs::path& base, unsigned helpers, int spare) {
  descriptor_limit limit(spare);
  return walk(base, helpers);
}

// A folder is closed once its sub-folders are open: chains far deeper than
// the descriptors left are walked whole. With none to spare, each folder
// below the root is named (EMFILE) and the walk goes on; a helper thread
// hands the folder it could not open back to the delivering thread.
TEST(ScanWalk, DeepChainsNeedNoDescriptorPerLevelAndFoldersThatCannotBeOpenedAreNamed) {
  fs::path base = make_chains(40);
  for (unsigned helpers : {0u, 1u}) {
    walked whole = walk_with_spare(base, helpers, 6);
    EXPECT_TRUE(whole.data->complete()) << helpers;
    EXPECT_EQ(whole.files.size(), 5u) << helpers;

    walked starved = walk_with_spare(base, helpers, 1);
    EXPECT_EQ(starved.files, std::vector<std::string>{"top.txt"}) << helpers;
    EXPECT_FALSE(starved.data->complete());
    auto skipped = starved.data->skipped_folders();
    ASSERT_EQ(skipped.size(), 2u) << helpers;
    std::sort(skipped.begin(), skipped.end(), [](auto& a, auto& b) { return a.path < b.path; });
    EXPECT_EQ(skipped[0].path, (base / "p").string());
    EXPECT_EQ(skipped[1].path, (base / "q").string());
    for (auto& s : skipped) EXPECT_EQ(s.code, EMFILE);
  }
  fs::remove_all(base);
}
#endif

TEST(ScanWalk, HelperThreadsKeepTheWalksOrderAndRecords) {
  api_compat::init();
  fs::path root = make_tree();
  walked alone = walk(root, 0);
  walked more = walk(root, 3);  // one helper: every scan of the JS suites
  EXPECT_EQ(alone.total, 30u * 71u);
  EXPECT_EQ(alone.files.size(), 30u * 71u);
  EXPECT_EQ(alone.folders.size(), 60u);
  EXPECT_EQ(alone.bytes, 30u * (70u * 69u / 2 + 3));
  EXPECT_EQ(std::tie(more.files, more.folders, more.bytes), std::tie(alone.files, alone.folders, alone.bytes));
  EXPECT_TRUE(alone.data->complete() && more.data->complete());
  fs::remove_all(root);
}

// FillFileInfoAsync: failures that never clear (files that vanish:
// scan-walk.test.js, through the walk).
class FillFileInfo : public ::testing::Test {
 protected:
  void SetUp() override {
    api_compat::init();   // as the module's initialiser does
    runtime::acquire(2);  // the service is pumped on one of the two workers
    dir_ = fs::temp_directory_path() /
           ("ostrel-scan-query-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
            std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
    fs::create_directories(dir_);
  }
  void TearDown() override {
    runtime::release(std::chrono::seconds(5));
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  std::shared_ptr<FileInfo> record(const fs::path& p) { return std::make_shared<FileInfo>(p.native(), dir_.native()); }
  fs::path dir_;
};

TEST_F(FillFileInfo, AnUnreadableRecordIsNotQueriedAgain) {
  auto info = record(dir_ / "never-created");
  info->readable = false;
  EXPECT_TRUE(sync_wait(FillFileInfoAsync(info)));
}

TEST_F(FillFileInfo, APersistentFailureIsRetriedElevenTimesThenGivenUp) {
#ifdef _WIN32
  fs::path bad = dir_ / L"bad*name";  // ERROR_INVALID_NAME on every attempt
#else
  fs::path bad = dir_ / std::string(300, 'n');  // ENAMETOOLONG on every attempt
#endif
  auto info = record(bad);
  info->size = 7;
  ::testing::internal::CaptureStdout();
  auto start = std::chrono::steady_clock::now();
  bool result = sync_wait(FillFileInfoAsync(info));
  auto elapsed = std::chrono::steady_clock::now() - start;
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_FALSE(result);
  EXPECT_FALSE(info->readable);
  EXPECT_EQ(info->size, 0u);
  std::size_t lines = 0;
  for (std::size_t at = 0; (at = out.find("FillFileInfoAsync: ", at)) != std::string::npos; ++at) ++lines;
  EXPECT_EQ(lines, 11u) << out;
  EXPECT_GE(elapsed, std::chrono::milliseconds(1000));  // ten waits of 100 ms
}

// Records: path fields of FileInfo, time conversions, the batch encoding.
#ifdef _WIN32
const native_string data_root = L"C:\\data\\sync";
#define SEP "\\"
#else
const native_string data_root = "/data/sync";
#define SEP "/"
#endif

native_string under_root(const char* relative) {
  return data_root + native_separator + utf8_to_native(relative);
}

// A first-level dot folder loses its dot in relativeDir (only the first
// byte is looked at); the walk's constructor and the general one agree.
TEST(FileInfoPaths, FieldsOfARelativePathWhicheverWayItIsMade) {
  const std::pair<std::string, std::string> rows[] = {
      {".cache" SEP "x.bin", "cache"},
      {"a" SEP ".cache" SEP "x.bin", "a" SEP ".cache"},
      {"..x" SEP "y", ".x"},
  };
  for (const auto& [rel, dir] : rows) {
    native_string path = under_root(rel.c_str());
    FileInfo general(path, data_root);
    FileInfo by_walk = FileInfo::from_walk(path, data_root.size() + 1, path.find_last_of(native_separator) + 1);
    for (const FileInfo* f : {&general, &by_walk}) {
      EXPECT_EQ(f->relativePath, rel);
      EXPECT_EQ(f->relativeDir, dir) << rel;
      EXPECT_EQ(f->name, rel.substr(rel.rfind(SEP[0]) + 1)) << rel;
      EXPECT_EQ(f->absolutePath, native_to_utf8(data_root) + SEP + rel);
    }
  }
}

TEST(FileTimes, KeepSubMillisecondPartsAndNegativeTimes) {
  constexpr std::int64_t epoch = 116444736000000000LL;
  EXPECT_DOUBLE_EQ(filetime_to_ms(epoch + 12345678), 1234.5678);
  EXPECT_DOUBLE_EQ(filetime_to_ms(epoch - 15000), -1.5);  // whole seconds -1, remainder 998.5 ms
  EXPECT_DOUBLE_EQ(filetime_to_ms(0), -11644473600000.0);
  EXPECT_DOUBLE_EQ(floor_to_second(-1.5), -1000.0);
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
// young generation, between records, however long the paths are.
TEST(BatchEncoding, LongBatchesAreCutIntoPiecesBetweenRecords) {
  std::vector<FileInfo> files;
  std::vector<FileInfo> folders;
  std::string long_name(700, 'n');
  for (int i = 0; i < 3000; ++i) {
    std::string dir = "d" + std::to_string(i % 7);
    files.emplace_back(under_root((dir + SEP + std::to_string(i) + (i % 3 ? "x.bin" : long_name)).c_str()), data_root);
    if (i % 5 == 0)
      files.emplace_back(under_root((dir + SEP "\xC3\xA9" + std::to_string(i) + long_name).c_str()), data_root);
    if (i % 11 == 0) folders.emplace_back(under_root(dir.c_str()), data_root);
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
