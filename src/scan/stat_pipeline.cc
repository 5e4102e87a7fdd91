#include "stat_pipeline.h"

#include <exception>

#include "runtime/log.h"

namespace ostrel::scan {

namespace {
constexpr std::size_t segment_limit = 128;  // records per segment
constexpr std::size_t queue_ahead = 4;      // unclaimed segments before the walker helps
}  // namespace

void retry_metadata_later(std::shared_ptr<ScanData> scan, std::shared_ptr<FileInfo> info);

stat_pipeline::stat_pipeline(std::shared_ptr<ScanData> scan, unsigned helpers) : scan_(std::move(scan)) {
  for (unsigned i = 0; i < helpers; ++i) helpers_.emplace_back([this] { helper_loop(); });
}

stat_pipeline::~stat_pipeline() {
  finish();
}

void stat_pipeline::add(const std::shared_ptr<dir_listing>& dir, FileInfo&& info, std::size_t name_offset, bool ready) {
  if (open_ && (open_->dir != dir || open_->records.size() >= segment_limit)) close_segment();
  if (!open_) {
    open_ = std::make_unique<segment>();
    open_->dir = dir;
    open_->records.reserve(16);
  }
  record& r = open_->records.emplace_back();
  r.info = std::move(info);
  r.name_offset = name_offset;
  r.ready = ready;
  if (helpers_.empty()) close_segment();  // no helper: query in place, in order
}

void stat_pipeline::close_segment() {
  if (!open_) return;
  std::unique_lock lock(mutex_);
  queue_.push_back(std::move(open_));
  ++unclaimed_;
  if (helpers_.empty() || unclaimed_ > queue_ahead) {
    // Nobody else, or the helpers are behind: the walking thread helps.
    while (unclaimed_ > (helpers_.empty() ? 0 : queue_ahead / 2)) run_one(lock);
  } else {
    lock.unlock();
    work_.notify_one();
  }
}

bool stat_pipeline::run_one(std::unique_lock<std::mutex>& lock) {
  segment* s = nullptr;
  for (auto& q : queue_) {
    if (!q->claimed) {
      s = q.get();
      break;
    }
  }
  if (!s) return false;
  s->claimed = true;
  --unclaimed_;
  lock.unlock();
  process(*s);
  lock.lock();
  s->done = true;
  lock.unlock();
  hand_on_done();
  lock.lock();
  return true;
}

void stat_pipeline::process(segment& s) {
  for (record& r : s.records) {
    if (r.ready) continue;
    if (scan_->stopped()) {
      r.settled = 0;
      continue;
    }
    try {
      native_string_view name = native_string_view(r.info.native_path).substr(r.name_offset);
      r.settled = settle_outcome(r.info, s.dir->query_name(r.info, name));
    } catch (const std::exception& e) {
      log::out_value("Exception caught in FillFileInfoAsync: ", e.what());
      r.settled = 0;
    }
  }
}

void stat_pipeline::hand_on_done() {
  std::lock_guard order(hand_on_mutex_);
  for (;;) {
    std::unique_ptr<segment> head;
    {
      std::lock_guard lock(mutex_);
      if (queue_.empty() || !queue_.front()->done) return;
      head = std::move(queue_.front());
      queue_.pop_front();
    }
    for (record& r : head->records) {
      if (scan_->stopped()) break;
      try {
        if (r.settled == 1) {
          scan_->keep_record(std::move(r.info), true);
        } else if (r.settled < 0) {
          scan_->begin_work();
          retry_metadata_later(scan_, std::make_shared<FileInfo>(std::move(r.info)));
        }
      } catch (const std::exception& e) {
        log::out_value("Exception caught in FileInfo emplace: ", e.what());
      }
    }
  }
}

void stat_pipeline::helper_loop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    work_.wait(lock, [this] { return unclaimed_ > 0 || finishing_; });
    if (unclaimed_ == 0 && finishing_) return;
    run_one(lock);
  }
}

void stat_pipeline::finish() {
  close_segment();
  {
    std::unique_lock lock(mutex_);
    while (run_one(lock)) {
    }
    finishing_ = true;
  }
  work_.notify_all();
  for (auto& t : helpers_) t.join();
  helpers_.clear();
  hand_on_done();  // segments a helper finished last
}

}  // namespace ostrel::scan
