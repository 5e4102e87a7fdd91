#include "scan_data.h"

#include <algorithm>
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
  end_update_wait();
  return was;
}

void ScanData::end_update_wait() {
  cancellation_source due;
  {
    std::lock_guard lock(mutex_);
    due = update_due_;
  }
  // Outside the lock: the timer's cancellation runs here.
  due.request_cancellation();
}

cancellation_token ScanData::update_due_token() {
  std::lock_guard lock(mutex_);
  update_due_ = cancellation_source();
  // Nobody holds the fresh token yet: no callback runs under the lock.
  if (waiting_records_ >= update_record_limit || finished() || stopped()) update_due_.request_cancellation();
  return update_due_.token();
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
  bool full = false;
  {
    std::lock_guard lock(mutex_);
    if (info.isFile) {
      collected_size_ += info.size;
      if (file_chunks_.empty() || file_chunks_.back().size() >= update_record_limit) {
        std::vector<FileInfo> chunk;
        if (!spare_chunks_.empty()) {
          chunk = std::move(spare_chunks_.back());
          spare_chunks_.pop_back();
        }
        chunk.reserve(update_record_limit);
        file_chunks_.push_back(std::move(chunk));
      }
      file_chunks_.back().push_back(std::move(info));
    } else {
      folders_.push_back(std::move(info));
    }
    full = ++waiting_records_ == update_record_limit;
    first = !update_pending_.exchange(true, std::memory_order_acq_rel);
  }
  if (first) batch_ready.set();
  if (full) end_update_wait();
}

void ScanData::take_update(std::size_t max_records, bool& more, scan_update& into) {
  // The records of the last update are freed here, outside the lock.
  into.files.clear();
  into.folders.clear();
  into.size = 0;
  std::lock_guard lock(mutex_);
  while (!file_chunks_.empty() && into.files.size() < max_records) {
    std::vector<FileInfo>& front = file_chunks_.front();
    const std::size_t room = max_records - into.files.size();
    if (into.files.empty() && front.size() <= room) {
      // The whole piece changes hands; the update's empty buffer is kept
      // for the pieces to come.
      std::swap(into.files, front);
      if (front.capacity() >= update_record_limit && spare_chunks_.size() < 2) {
        spare_chunks_.push_back(std::move(front));
      }
      file_chunks_.pop_front();
      continue;
    }
    const auto n = static_cast<std::ptrdiff_t>(std::min(room, front.size()));
    into.files.insert(into.files.end(), std::make_move_iterator(front.begin()),
                      std::make_move_iterator(front.begin() + n));
    front.erase(front.begin(), front.begin() + n);
    if (front.empty()) file_chunks_.pop_front();
  }
  const std::size_t room = max_records - into.files.size();
  if (folders_.size() <= room) {
    into.folders.swap(folders_);
  } else {
    const auto n = static_cast<std::ptrdiff_t>(room);
    into.folders.insert(into.folders.end(), std::make_move_iterator(folders_.begin()),
                        std::make_move_iterator(folders_.begin() + n));
    folders_.erase(folders_.begin(), folders_.begin() + n);
  }
  for (const FileInfo& f : into.files) into.size += f.size;
  waiting_records_ -= into.files.size() + into.folders.size();
  collected_size_ -= into.size;
  more = !file_chunks_.empty() || !folders_.empty();
  // Still pending while records are left: the next collect must not signal
  // a new batch, the delivery loop takes the rest without waiting.
  update_pending_.store(more, std::memory_order_release);
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

void ScanData::add_invalid_names(native_string_view relative, std::uint64_t count) {
  if (count == 0) return;
  std::string path = script_path(relative);
  std::size_t folders;
  {
    std::lock_guard lock(account_mutex_);
    invalid_name_count_ += count;
    for (auto& f : invalid_names_) {
      if (f.path == path) {  // met again (another rule): named once
        invalid_name_count_ -= count;
        return;
      }
    }
    invalid_names_.push_back({path, count});
    folders = invalid_names_.size();
  }
  if (folders <= logged_skip_limit) {
    log::err("ScanAllSubFiles: " + std::to_string(count) + (count == 1 ? " name" : " names") + " in " + path +
             " left out: not valid Unicode (" + (sizeof(native_char) == 1 ? "UTF-8" : "UTF-16") + ")");
  } else if (folders == logged_skip_limit + 1) {
    log::err("ScanAllSubFiles: more folders hold names that are not valid Unicode; the result names them all");
  }
}

std::vector<invalid_name_folder> ScanData::invalid_name_folders() const {
  std::lock_guard lock(account_mutex_);
  return invalid_names_;
}

std::uint64_t ScanData::invalid_name_count() const {
  std::lock_guard lock(account_mutex_);
  return invalid_name_count_;
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
  return skipped_.empty() && invalid_names_.empty();
}

void ScanData::end_work() {
  if (work_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    finished_.store(true, std::memory_order_release);
    batch_ready.set();
    end_update_wait();
  }
}

}  // namespace ostrel::scan
