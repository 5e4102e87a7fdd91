// FillFileInfoAsync against real files: a vanished file (or one whose
// folder vanished) gives false at once and keeps its empty metadata, and a
// failure that never clears is retried eleven times, 100 ms apart, then
// given up. Files filled: every field against node's fs in scan-walk.test.js.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "runtime/runtime.h"
#include "runtime/sync_wait.h"
#include "scan/api_compat.h"
#include "scan/file_query.h"

namespace ostrel::scan {
namespace {

namespace fs = std::filesystem;

class FillFileInfo : public ::testing::Test {
 protected:
  void SetUp() override {
    api_compat::init();  // as the module's initialiser does; a second call does nothing
    api_compat::init();
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

// A file, or a folder on its path, deleted while the entry waits for its
// query: the entry is gone (Windows reports ERROR_PATH_NOT_FOUND when a
// folder on the path is missing, Linux ENOENT), so it is dropped at once
// with its empty metadata, neither retried nor logged.
TEST_F(FillFileInfo, AVanishedFileGivesFalseWithoutRetries) {
  struct {
    const char* what;
    fs::path file;
    fs::path removed;
  } cases[] = {
      {"the file", dir_ / "gone0" / "a.txt", dir_ / "gone0" / "a.txt"},
      {"its folder", dir_ / "gone1" / "a.txt", dir_ / "gone1"},
      {"a folder two levels up", dir_ / "gone2" / "sub" / "a.txt", dir_ / "gone2"},
  };
  for (auto& c : cases) {
    fs::create_directories(c.file.parent_path());
    std::ofstream(c.file) << "x";
    auto info = record(c.file);
    fs::remove_all(c.removed);
    ::testing::internal::CaptureStdout();
    bool result = sync_wait(FillFileInfoAsync(info));
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_FALSE(result) << c.what;
    EXPECT_TRUE(info->readable) << c.what;
    EXPECT_EQ(info->size, 0u) << c.what;
    EXPECT_EQ(info->mtimeMs, 0.0) << c.what;
    EXPECT_EQ(out.find("FillFileInfoAsync"), std::string::npos) << c.what << ": " << out;
  }
}

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

}  // namespace
}  // namespace ostrel::scan
