#include "api_stats.h"

#include <algorithm>

namespace ostrel::telemetry {

ApiStatEntry& api_stats::entry_locked(const hashed_name& key) {
  auto it = entries_.find(key);
  if (it == entries_.end()) {
    it = entries_.emplace(stat_key{key.hash, std::string(key.name)}, ApiStatEntry{}).first;
    it->second.name = it->first.name;
  }
  return it->second;
}

void api_stats::record(std::string_view name, std::uint64_t value_ms, std::int32_t code, std::string_view message) {
  const hashed_name key{std::hash<std::string_view>{}(name), name};
  std::lock_guard lock(lock_);
  ApiStatEntry& e = entry_locked(key);
  e.count += 1;
  e.sum += value_ms;
  if (e.max < value_ms) e.max = value_ms;
  if (code != 0 && e.code == 0) {
    e.code = code;
    e.message.assign(message);
  } else {
    e.other += 1;
  }
}

void api_stats::record_successes(std::string_view name, std::uint64_t count, std::uint64_t sum_ms,
                                 std::uint64_t max_ms) {
  if (count == 0) return;
  const hashed_name key{std::hash<std::string_view>{}(name), name};
  std::lock_guard lock(lock_);
  ApiStatEntry& e = entry_locked(key);
  e.count += count;
  e.sum += sum_ms;
  if (e.max < max_ms) e.max = max_ms;
  e.other += count;
}

double api_stats::elapsed_ms(std::int64_t now_ns) const {
  std::lock_guard lock(lock_);
  return static_cast<double>(now_ns - last_flush_ns_) / 1e9 * 1000.0;
}

bool api_stats::should_flush(bool tracer_registered, bool scheduler_running, std::int64_t now_ns) const {
  if (!tracer_registered || !scheduler_running) return false;
  return elapsed_ms(now_ns) >= flush_interval_ms;
}

std::vector<ApiStatEntry> api_stats::take_entries(std::int64_t now_ns) {
  std::vector<ApiStatEntry> out;
  {
    std::lock_guard lock(lock_);
    last_flush_ns_ = now_ns;
    out.reserve(entries_.size());
    for (auto& [name, entry] : entries_) out.push_back(std::move(entry));
    entries_.clear();
  }
  std::sort(out.begin(), out.end(), [](const ApiStatEntry& a, const ApiStatEntry& b) { return a.name < b.name; });
  return out;
}

std::size_t api_stats::size() const {
  std::lock_guard lock(lock_);
  return entries_.size();
}

bool api_stats::begin_flush_attempt() noexcept {
  // A plain load first: while an attempt is pending (the common case under
  // load) recorders only read the shared line instead of writing it.
  if (attempt_pending_.load(std::memory_order_acquire)) return false;
  return !attempt_pending_.exchange(true, std::memory_order_acq_rel);
}

void api_stats::end_flush_attempt() noexcept {
  attempt_pending_.store(false, std::memory_order_seq_cst);
}

bool api_stats::flush_attempt_pending() const noexcept {
  return attempt_pending_.load(std::memory_order_acquire);
}

}  // namespace ostrel::telemetry
