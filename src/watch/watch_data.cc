#include "watch_data.h"

#include <algorithm>

#include "runtime/log.h"

namespace ostrel::watch {

WatchData::WatchData(native_string root, scan::ScanFilters f, std::vector<native_string> targets, watch_settings s,
                     std::shared_ptr<watch_sink> out)
    : rootPath(std::move(root)),
      filters(std::move(f)),
      watchTargets(std::move(targets)),
      settings(s),
      sink(std::move(out)) {}

WatchData::~WatchData() {
  try {
    std::lock_guard lock(mutex_);
    cancelSources_.clear();
  } catch (const std::exception& e) {
    log::err_value("FileWatcher: ~WatchData failed", e.what());
  }
}

std::shared_ptr<cancellation_source> WatchData::new_read_source() {
  auto source = std::make_shared<cancellation_source>();
  std::lock_guard lock(mutex_);
  if (!running.load() || rootRemoved.load()) source->request_cancellation();
  cancelSources_.push_back(source);
  return source;
}

void WatchData::forget_read_source(const std::shared_ptr<cancellation_source>& source) {
  std::lock_guard lock(mutex_);
  cancelSources_.erase(std::remove(cancelSources_.begin(), cancelSources_.end(), source), cancelSources_.end());
}

void WatchData::CancelPendingReads() {
  std::lock_guard lock(mutex_);
  for (auto& s : cancelSources_) s->request_cancellation();
}

bool WatchData::stop() {
  if (!running.exchange(false)) return false;
  CancelPendingReads();
  dirDeletedChangeEvents[0].set();
  dirDeletedChangeEvents[1].set();
  return true;
}

std::uint64_t WatchData::next_sequence(bool dir_mode) {
  std::lock_guard lock(mutex_);
  return loops_[dir_mode ? 1 : 0].next_assigned++;
}

bool WatchData::finish_record(bool dir_mode, std::uint64_t seq, std::vector<watch_event> events) {
  std::lock_guard lock(mutex_);
  ordered& o = loops_[dir_mode ? 1 : 0];
  o.finished.emplace(seq, std::move(events));
  bool grew = false;
  for (auto it = o.finished.begin(); it != o.finished.end() && it->first == o.next_delivered;
       it = o.finished.erase(it)) {
    for (auto& e : it->second) deliverable_.push_back(std::move(e));
    ++o.next_delivered;
    grew = true;
  }
  return grew;
}

std::vector<watch_event> WatchData::take_deliverable() {
  std::lock_guard lock(mutex_);
  std::vector<watch_event> out;
  out.swap(deliverable_);
  return out;
}

void WatchData::flush() {
  std::lock_guard lock(flush_mutex_);
  std::vector<watch_event> events = take_deliverable();
  if (!events.empty()) sink->events(std::move(events));
}

}  // namespace ostrel::watch
