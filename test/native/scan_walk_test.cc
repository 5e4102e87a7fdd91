// The walk over a real tree: order, counts and records are the same whether
// the walking thread queries every entry itself or shares the queries with
// a helper thread; a stop ends it. What the walk could not cover (a root or
// folder that cannot be listed) is named once, and makes the scan
// incomplete.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "scan/api_compat.h"
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

// A walk of `root` with `helpers` threads sharing the metadata queries: the
// scan, and every record collected and left in it.
struct walked {
  std::shared_ptr<ScanData> data = std::make_shared<ScanData>();
  std::vector<std::string> files, folders;
  std::uint64_t total = 0, bytes = 0;
};

walked walk(const fs::path& root, unsigned helpers, bool stop_at_once = false) {
  walked w;
  w.data->root_utf8 = native_to_utf8(root.native());
  w.data->root = walk_root(root.native());
  w.data->filters.needDirs = true;
  w.data->filters.metadata_helpers = helpers;
  w.data->set_backlog_limit(1u << 30);
  if (stop_at_once) w.data->request_stop();
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

// A fast walk's records reach script in pieces of at most the number asked
// for, in collection order, files before folders, each piece with its
// files' sizes summed.
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

// The relative path of a skipped folder in the walk's native form.
native_string rel(std::initializer_list<const char*> parts) {
  native_string out;
  for (const char* p : parts) {
    if (!out.empty()) out.push_back(native_separator);
    out += utf8_to_native(p);
  }
  return out;
}

// The delivery loop waits at most 100 ms for an update to fill; its wait
// ends as soon as a whole update's records wait, the scan has finished or
// has been stopped, and not before.
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

// A folder skipped (named once, as script gave the root) makes the scan
// incomplete, a loop does not; skips are logged few at a time.
TEST(ScanData, SkippedAndLoopedFoldersAreNamedAsScriptGaveTheRoot) {
  const std::string sep(1, static_cast<char>(native_separator));
  struct {
    const char* root;
    native_string relative;
    std::string path;
  } cases[] = {
      {"base", {}, "base"},
      {"base", rel({"a"}), "base" + sep + "a"},
      {"base", rel({"a", "b"}), "base" + sep + "a" + sep + "b"},
      {"base/", rel({"a"}), "base/a"},
  };
  for (auto& c : cases) {
    ScanData looped, skipped;
    looped.root_utf8 = skipped.root_utf8 = c.root;
    looped.add_looped(c.relative, {});
    EXPECT_TRUE(looped.complete());
    ASSERT_EQ(looped.looped_folders().size(), 1u);
    EXPECT_EQ(looped.looped_folders()[0].path, c.path);
    EXPECT_EQ(looped.looped_folders()[0].same_as, c.root);
    skipped.add_skipped(c.relative, 24, "Too many open files");
    skipped.add_skipped(c.relative, 24, "Too many open files");  // met again (another rule)
    auto named = skipped.skipped_folders();
    ASSERT_EQ(named.size(), 1u) << c.root;
    EXPECT_EQ(std::tie(named[0].path, named[0].code, named[0].reason),
              std::make_tuple(c.path, 24, std::string("Too many open files")));
    EXPECT_FALSE(skipped.complete());
  }

  ScanData data;
  ::testing::internal::CaptureStderr();
  for (int i = 0; i < 25; ++i) data.add_skipped(rel({("f" + std::to_string(i)).c_str()}), 5, "denied");
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(data.skipped_folders().size(), 25u);
  std::size_t lines = 0;
  for (std::size_t at = 0; (at = err.find("ScanAllSubFiles: skipped ", at)) != std::string::npos; ++at) ++lines;
  EXPECT_EQ(lines, ScanData::logged_skip_limit) << err;
  EXPECT_NE(err.find("more folders skipped"), std::string::npos) << err;
}

// The codes are the system's own: what script gets as `code`.
TEST(ScanWalk, ARootThatCannotBeListedIsNamedWithItsCode) {
  api_compat::init();
  fs::path base = make_tree();
  std::ofstream(base / "file.txt") << "x";
#ifdef _WIN32
  const std::vector<int> missing = {2, 3}, not_a_folder = {267};  // ERROR_FILE/PATH_NOT_FOUND, ERROR_DIRECTORY
#else
  const std::vector<int> missing = {ENOENT}, not_a_folder = {ENOTDIR};
#endif
  struct {
    const char* what;
    fs::path root;
    std::vector<int> codes;
  } cases[] = {{"missing", base / "missing", missing},
               {"missing parent", base / "missing" / "deeper", missing},
               {"a file", base / "file.txt", not_a_folder}};
  for (auto& c : cases) {
    walked w = walk(c.root, 0);
    auto& data = w.data;
    EXPECT_TRUE(w.files.empty()) << c.what;
    EXPECT_EQ(w.total, 0u) << c.what;
    EXPECT_FALSE(data->complete()) << c.what;
    auto skipped = data->skipped_folders();
    ASSERT_EQ(skipped.size(), 1u) << c.what;
    EXPECT_EQ(skipped[0].path, data->root_utf8) << c.what;
    EXPECT_NE(std::find(c.codes.begin(), c.codes.end(), skipped[0].code), c.codes.end()) << c.what << skipped[0].code;
    EXPECT_FALSE(skipped[0].reason.empty()) << c.what;
  }
  fs::remove_all(base);
}

#ifndef _WIN32
// Sets the limit of open files so that exactly `free_slots` more can be
// opened, and puts it back when it goes out of scope. Free numbers are
// counted, not assumed to follow the lowest one: an earlier test's threads
// may hold descriptors above a hole.
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

// Two branches, each a chain of `depth` folders below `base`/p and
// `base`/q, with a file at the top of each branch and one at its end.
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

// A folder is closed once it is listed and its sub-folders are open, not
// when its whole sub-tree has been delivered: a chain of folders far deeper
// than the descriptors left is walked whole. With no descriptor to spare
// once the root is open, the folders below it cannot be opened (EMFILE):
// each is skipped and named, and the walk goes on with the next one; the
// root's own files are delivered. With a helper thread, the folder it could
// not open is handed back to the delivering thread, which names it.
TEST(ScanWalk, DeepChainsNeedNoDescriptorPerLevelAndFoldersThatCannotBeOpenedAreNamed) {
  fs::path base = make_chains(40);
  for (unsigned helpers : {0u, 1u}) {
    walked whole = walk_with_spare(base, helpers, 6);
    EXPECT_TRUE(whole.data->complete()) << helpers << " "
                                        << (whole.data->skipped_folders().empty()
                                                ? ""
                                                : whole.data->skipped_folders()[0].path);
    EXPECT_EQ(whole.files.size(), 5u) << helpers;

    walked starved = walk_with_spare(base, helpers, 1);
    EXPECT_EQ(starved.files, std::vector<std::string>{"top.txt"}) << helpers;
    EXPECT_FALSE(starved.data->complete());
    auto skipped = starved.data->skipped_folders();
    ASSERT_EQ(skipped.size(), 2u) << helpers;
    std::sort(skipped.begin(), skipped.end(), [](auto& a, auto& b) { return a.path < b.path; });
    EXPECT_EQ(skipped[0].path, (base / "p").string());
    EXPECT_EQ(skipped[1].path, (base / "q").string());
    for (auto& s : skipped) {
      EXPECT_EQ(s.code, EMFILE);
      EXPECT_FALSE(s.reason.empty());
    }
  }
  fs::remove_all(base);
}
#endif

// Special files and names that are not UTF-8: scan-walk.test.js, against
// node's fs.

TEST(ScanWalk, HelperThreadsKeepTheWalksOrderAndRecords) {
  api_compat::init();
  fs::path root = make_tree();
  walked alone = walk(root, 0);
  walked shared = walk(root, 1);
  walked more = walk(root, 3);
  EXPECT_EQ(alone.total, 30u * 71u);
  EXPECT_EQ(alone.files.size(), 30u * 71u);
  EXPECT_EQ(alone.folders.size(), 60u);
  EXPECT_EQ(alone.bytes, 30u * (70u * 69u / 2 + 3));
  EXPECT_EQ(shared.files, alone.files);
  EXPECT_EQ(shared.folders, alone.folders);
  EXPECT_EQ(more.files, alone.files);
  EXPECT_EQ(more.bytes, alone.bytes);
  for (const walked* w : {&alone, &shared, &more}) {
    EXPECT_TRUE(w->data->complete());
    EXPECT_TRUE(w->data->skipped_folders().empty());
    EXPECT_TRUE(w->data->looped_folders().empty());
  }
  walked stopped = walk(root, 1, true);
  EXPECT_EQ(stopped.total, 0u);
  EXPECT_TRUE(stopped.files.empty());
  fs::remove_all(root);
}

}  // namespace
}  // namespace ostrel::scan
