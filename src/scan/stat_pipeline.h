// Metadata queries of the walk, spread over the walking thread and a helper
// thread while keeping the walk's order. The walk appends records to
// segments (consecutive records of one open folder); either thread queries a
// whole segment, and finished segments are handed on strictly in the order
// they were made.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "dir_listing.h"
#include "scan_data.h"

namespace ostrel::scan {

class stat_pipeline {
 public:
  // `helpers` threads query segments besides the walking thread (0: the
  // walking thread queries everything, in place).
  stat_pipeline(std::shared_ptr<ScanData> scan, unsigned helpers);
  ~stat_pipeline();
  stat_pipeline(const stat_pipeline&) = delete;
  stat_pipeline& operator=(const stat_pipeline&) = delete;

  // A record of an entry of `dir`; its name is the end of its native path,
  // from `name_offset`. `ready`: its metadata is already filled (the fast
  // listing), so it is only kept in order.
  void add(const std::shared_ptr<dir_listing>& dir, FileInfo&& info, std::size_t name_offset, bool ready);
  // Walking thread, at the end: queries and hands on everything left, then
  // stops the helpers.
  void finish();

 private:
  struct record {
    FileInfo info;
    std::size_t name_offset = 0;
    bool ready = false;
    int settled = 1;  // 1 keep, 0 drop, -1 retry later
  };
  struct segment {
    std::shared_ptr<dir_listing> dir;
    std::vector<record> records;
    bool claimed = false;
    bool done = false;
  };

  void close_segment();  // queues the open segment
  void process(segment& s);
  void hand_on_done();                               // keeps the records of done segments at the head, in order
  bool run_one(std::unique_lock<std::mutex>& lock);  // claims and processes one segment
  void helper_loop();

  std::shared_ptr<ScanData> scan_;
  std::unique_ptr<segment> open_;
  std::mutex mutex_;
  std::condition_variable work_;
  std::deque<std::unique_ptr<segment>> queue_;
  std::size_t unclaimed_ = 0;
  bool finishing_ = false;
  std::mutex hand_on_mutex_;
  std::vector<std::thread> helpers_;
};

}  // namespace ostrel::scan
