// Deadlines of timed waits, ordered by time. Shared by the platform drivers
// of the I/O service; every member is called under the service's timer lock.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

namespace ostrel::detail {

struct io_state;

class timer_queue {
 public:
  using position = std::multimap<std::int64_t, io_state*>::iterator;

  position add(std::int64_t deadline_ns, io_state* op) { return entries_.emplace(deadline_ns, op); }
  void remove(position p) { entries_.erase(p); }
  bool empty() const noexcept { return entries_.empty(); }
  std::int64_t earliest() const noexcept { return entries_.begin()->first; }

  // Moves every entry due at `now_ns` into `out`, earliest first.
  void take_due(std::int64_t now_ns, std::vector<io_state*>& out) {
    auto end = entries_.upper_bound(now_ns);
    for (auto it = entries_.begin(); it != end; ++it) out.push_back(it->second);
    entries_.erase(entries_.begin(), end);
  }

 private:
  std::multimap<std::int64_t, io_state*> entries_;
};

}  // namespace ostrel::detail
