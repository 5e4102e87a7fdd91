#include "watch_data.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <type_traits>

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
  stopped->store(true);
  stop_source_.request_cancellation();
  CancelPendingReads();
  dirDeletedChangeEvents[0].set();
  dirDeletedChangeEvents[1].set();
  return true;
}

std::uint64_t WatchData::next_sequence(bool dir_mode, native_string name, std::uint32_t action) {
  std::lock_guard lock(mutex_);
  ordered& o = loops_[dir_mode ? 1 : 0];
  pending_record r;
  if (action == action_renamed_new && o.last_was_renamed_old) r.pair_name = o.last_renamed_old;
  o.last_was_renamed_old = action == action_renamed_old;
  if (o.last_was_renamed_old) o.last_renamed_old = name;
  r.name = std::move(name);
  const std::uint64_t seq = o.next_assigned++;
  o.pending.emplace(seq, std::move(r));
  return seq;
}

namespace {

// How many held-back records the delivery looks past: beyond them the rest
// waits in record order, so that a delivery stays cheap.
constexpr std::size_t max_held = 16;

bool is_separator(scan::native_char c) {
  return c == scan::native_separator || c == '/';
}

// Whether two names relative to the root touch each other: the same item,
// or one a folder above the other. The empty name (the root) touches all.
bool related(const native_string& a, const native_string& b) {
  const native_string& shorter = a.size() <= b.size() ? a : b;
  const native_string& longer = a.size() <= b.size() ? b : a;
  if (shorter.empty()) return true;
  if (longer.compare(0, shorter.size(), shorter) != 0) return false;
  return longer.size() == shorter.size() || is_separator(longer[shorter.size()]);
}

}  // namespace

namespace {

constexpr std::int64_t recent_add_ms = 10000;

std::int64_t now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

bool WatchData::keep(const watch_event& e) {
  const std::int64_t now = now_ms();
  while (!add_times_.empty() && now - add_times_.front().first >= recent_add_ms) {
    auto it = recent_adds_.find(add_times_.front().second);
    if (it != recent_adds_.end() && it->second.at_ms == add_times_.front().first) recent_adds_.erase(it);
    add_times_.pop_front();
  }
  if (e.action == action_removed || e.action == action_renamed_old) {
    recent_adds_.erase(e.file_name);
    return true;
  }
  if (e.action != action_added) return true;
  auto it = recent_adds_.find(e.file_name);
  if (it != recent_adds_.end() && it->second.is_file == e.info.isFile &&
      (it->second.ino == e.info.ino || it->second.ino == 0 || e.info.ino == 0)) {
    // Kept: a folder inside a new folder is listed by both expansions, and
    // its own record may report the same item a third time.
    return false;
  }
  recent_adds_[e.file_name] = added{e.info.isFile, e.info.ino, now};
  add_times_.emplace_back(now, e.file_name);
  return true;
}

bool WatchData::finish_record(bool dir_mode, std::uint64_t seq, std::vector<watch_event> events) {
  std::lock_guard lock(mutex_);
  ordered& o = loops_[dir_mode ? 1 : 0];
  auto at = o.pending.find(seq);
  if (at == o.pending.end()) {
    // Not numbered by next_sequence (a test's own numbers): in order of
    // numbers, like any other.
    at = o.pending.emplace(seq, pending_record{}).first;
  }
  at->second.done = true;
  at->second.events = std::move(events);
  bool grew = false;
  // Names of the earlier records still held back: a later record touching
  // one of them waits too.
  std::vector<const native_string*> held;
  for (auto it = o.pending.begin(); it != o.pending.end() && held.size() < max_held;) {
    pending_record& r = it->second;
    // A record waits for the earlier ones that touch its item (the same
    // item, a folder above or below it, the old name of its rename); one
    // slow query does not hold back the rest of the tree.
    bool wait = !r.done;
    for (std::size_t i = 0; i < held.size() && !wait; ++i) {
      wait = related(*held[i], r.name) || (!r.pair_name.empty() && related(*held[i], r.pair_name));
    }
    if (wait) {
      held.push_back(&r.name);  // map nodes stay put while others are erased
      // A rename's new half holds back its old name too, so that nothing
      // of that name comes between the two halves.
      if (!r.pair_name.empty()) held.push_back(&r.pair_name);
      ++it;
      continue;
    }
    for (auto& e : r.events) {
      if (keep(e)) deliverable_.push_back(std::move(e));
    }
    grew = true;
    it = o.pending.erase(it);
  }
  return grew;
}

void WatchData::report_invalid_name(const native_string& relative) {
  {
    std::lock_guard lock(mutex_);
    for (const auto& r : invalid_reported_) {
      if (r == relative) return;
    }
    invalid_reported_.push_back(relative);
  }
  // Each byte that is not printable ASCII as \xHH, so that the log line and
  // the message say exactly which name it is.
  std::string shown;
  for (auto c : relative) {
    const auto u = static_cast<std::uint32_t>(static_cast<std::make_unsigned_t<scan::native_char>>(c));
    if (u >= 0x20 && u < 0x7F) {
      shown.push_back(static_cast<char>(u));
    } else {
      char hex[12];
      std::snprintf(hex, sizeof hex, u <= 0xFF ? "\\x%02X" : "\\u%04X", static_cast<unsigned>(u));
      shown += hex;
    }
  }
  std::string reason = "A name that is not valid Unicode is not reported: " + shown;
  log::err("FileWatcher: " + reason);
  sink->error(error_invalid_name, std::move(reason), "INVALID_NAME");
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
