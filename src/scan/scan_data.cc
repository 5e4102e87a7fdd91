#include "scan_data.h"

#include <chrono>
#include <iterator>

#include "runtime/log.h"

namespace ostrel::scan {

ScanData::ScanData() = default;

ScanData::~ScanData() {
  log::out("ScanData::~ScanData");
}

bool ScanData::request_stop() {
  bool was = stop_->exchange(true, std::memory_order_acq_rel);
  { std::lock_guard lock(backlog_mutex_); }
  backlog_drained_.notify_all();
  return was;
}

void ScanData::keep_record(FileInfo&& info, bool may_wait) {
  if (info.hidden && info.isSystem) {
    if (info.isFile) {
      filteredFileCount.fetch_add(1, std::memory_order_relaxed);
      hiddenSystemFileCount.fetch_add(1, std::memory_order_relaxed);
    }
    return;
  }
  if (filters.formatMsToSecond) {
    info.ctimeMs = floor_to_second(info.ctimeMs);
    info.mtimeMs = floor_to_second(info.mtimeMs);
  }
  collect(std::move(info), may_wait);
}

void ScanData::collect(FileInfo&& info, bool may_wait) {
  {
    // Waits for script to catch up; a stop ends the wait.
    std::unique_lock lock(backlog_mutex_);
    while (may_wait && backlog_ >= backlog_limit_ && !stopped()) {
      backlog_drained_.wait_for(lock, std::chrono::milliseconds(50));
    }
    ++backlog_;
  }
  bool first;
  {
    std::lock_guard lock(mutex_);
    if (info.isFile) {
      collected_size_ += info.size;
      files_.push_back(std::move(info));
    } else {
      folders_.push_back(std::move(info));
    }
    first = !update_pending_.exchange(true, std::memory_order_acq_rel);
  }
  if (first) batch_ready.set();
}

scan_update ScanData::take_update(std::size_t max_records, bool& more) {
  scan_update update;
  std::lock_guard lock(mutex_);
  auto take = [&](std::vector<FileInfo>& from, std::vector<FileInfo>& to, std::size_t limit) {
    if (from.size() <= limit) {
      to.swap(from);
      from.clear();
      return;
    }
    to.reserve(limit);
    std::move(from.begin(), from.begin() + static_cast<std::ptrdiff_t>(limit), std::back_inserter(to));
    from.erase(from.begin(), from.begin() + static_cast<std::ptrdiff_t>(limit));
  };
  take(files_, update.files, max_records);
  take(folders_, update.folders, max_records - update.files.size());
  for (const FileInfo& f : update.files) update.size += f.size;
  collected_size_ -= update.size;
  more = !files_.empty() || !folders_.empty();
  // Still pending while records are left: the next collect must not signal
  // a new batch, the delivery loop takes the rest without waiting.
  update_pending_.store(more, std::memory_order_release);
  return update;
}

void ScanData::release_backlog(std::size_t count) {
  {
    std::lock_guard lock(backlog_mutex_);
    backlog_ = count > backlog_ ? 0 : backlog_ - count;
  }
  backlog_drained_.notify_all();
}

std::string ScanData::script_path(native_string_view relative) const {
  std::string path = root_utf8;
  if (relative.empty()) return path;
  bool separated = !path.empty() && (path.back() == '/' || path.back() == static_cast<char>(native_separator));
  if (!separated) path.push_back(static_cast<char>(native_separator));
  path += native_to_utf8(relative);
  return path;
}

void ScanData::add_skipped(native_string_view relative, int code, std::string reason) {
  std::string path = script_path(relative);
  std::string line_reason = reason;
  std::size_t count;
  {
    std::lock_guard lock(account_mutex_);
    if (!accounted_.insert(path).second) return;
    skipped_.push_back({path, code, std::move(reason)});
    count = skipped_.size();
  }
  if (count <= logged_skip_limit) {
    log::err("ScanAllSubFiles: skipped " + path + ": " + line_reason + " (error " + std::to_string(code) + ")");
  } else if (count == logged_skip_limit + 1) {
    log::err("ScanAllSubFiles: more folders skipped; the result names them all");
  }
}

void ScanData::add_looped(native_string_view relative, native_string_view same_as) {
  std::string path = script_path(relative);
  std::lock_guard lock(account_mutex_);
  if (!accounted_.insert(path).second) return;
  looped_.push_back({path, script_path(same_as)});
}

std::vector<skipped_folder> ScanData::skipped_folders() const {
  std::lock_guard lock(account_mutex_);
  return skipped_;
}

std::vector<looped_folder> ScanData::looped_folders() const {
  std::lock_guard lock(account_mutex_);
  return looped_;
}

bool ScanData::complete() const {
  std::lock_guard lock(account_mutex_);
  return skipped_.empty();
}

void ScanData::end_work() {
  if (work_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    finished_.store(true, std::memory_order_release);
    batch_ready.set();
  }
}

}  // namespace ostrel::scan
