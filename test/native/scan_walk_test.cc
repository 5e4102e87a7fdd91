// The walk over a real tree: order, counts and records are the same whether
// the walking thread queries every entry itself or shares the queries with
// a helper thread; a stop ends it.
#include <gtest/gtest.h>

#include <cstdint>

#include <chrono>
#include <filesystem>
#include <fstream>

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

struct walked {
  std::vector<std::string> files, folders;
  std::uint64_t total = 0, bytes = 0;
};

walked walk(const fs::path& root, unsigned helpers, bool stop_at_once = false) {
  auto data = std::make_shared<ScanData>();
  data->root = walk_root(root.native());
  data->filters.needDirs = true;
  data->filters.metadata_helpers = helpers;
  data->set_backlog_limit(1u << 30);
  if (stop_at_once) data->request_stop();
  data->begin_work();
  run_walk(data);
  data->end_work();
  EXPECT_TRUE(data->finished());
  walked w;
  bool more = true;
  scan_update u = data->take_update(SIZE_MAX, more);
  EXPECT_FALSE(more);
  for (auto& f : u.files) {
    w.files.push_back(f.relativePath);
    w.bytes += f.size;
    EXPECT_GT(f.mtimeMs, 0.0);
  }
  for (auto& f : u.folders) w.folders.push_back(f.relativePath);
  w.total = data->totalFileCount;
  return w;
}

// A fast walk's records reach script in pieces of a bounded size, in
// collection order, files before folders, with sizes summed per piece.
TEST(ScanData, UpdatesAreTakenInBoundedPiecesInOrder) {
  ScanData data;
  data.set_backlog_limit(1u << 30);
  for (int i = 0; i < 5; ++i) {
    FileInfo f;
    f.isFile = true;
    f.size = static_cast<std::uint64_t>(i + 1);
    f.name = "f" + std::to_string(i);
    data.collect(std::move(f), false);
  }
  FileInfo dir;
  dir.name = "d";
  data.collect(std::move(dir), false);

  bool more = false;
  scan_update first = data.take_update(2, more);
  EXPECT_TRUE(more);
  ASSERT_EQ(first.files.size(), 2u);
  EXPECT_EQ(first.files[0].name, "f0");
  EXPECT_EQ(first.files[1].name, "f1");
  EXPECT_TRUE(first.folders.empty());
  EXPECT_EQ(first.size, 3u);

  scan_update second = data.take_update(4, more);
  EXPECT_FALSE(more);
  ASSERT_EQ(second.files.size(), 3u);
  EXPECT_EQ(second.files[0].name, "f2");
  ASSERT_EQ(second.folders.size(), 1u);
  EXPECT_EQ(second.folders[0].name, "d");
  EXPECT_EQ(second.size, 3u + 4u + 5u);

  scan_update empty = data.take_update(4, more);
  EXPECT_FALSE(more);
  EXPECT_TRUE(empty.files.empty() && empty.folders.empty());
  EXPECT_EQ(empty.size, 0u);
}

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
  walked stopped = walk(root, 1, true);
  EXPECT_EQ(stopped.total, 0u);
  EXPECT_TRUE(stopped.files.empty());
  fs::remove_all(root);
}

}  // namespace
}  // namespace ostrel::scan
