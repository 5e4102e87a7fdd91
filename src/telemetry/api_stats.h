// Call statistics aggregated per name between flushes. Recording costs one
// map update under a mutex; the entries are taken out, at most once per
// 500 ms and only while a tracer can receive them, and sent as one span per
// name.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ostrel::telemetry {

struct ApiStatEntry {
  std::string name;         // "dim_0"
  std::uint32_t count = 0;  // "indsum_0": records
  std::uint32_t other = 0;  // "indsum_1": records that did not store an error
  std::uint64_t sum = 0;    // "indsum_2": sum of the values
  std::int32_t code = 0;    // "dim_1": the first non-zero status, 0 if none
  std::string message;      // "dim_2": the message that came with `code`
  std::uint64_t max = 0;    // "indavg_0": the largest single value
};

class api_stats {
 public:
  static constexpr double flush_interval_ms = 500.0;

  // Adds one record to its name's entry. A non-zero code is stored with its
  // message only while the entry has none yet; every other record (every
  // success, and every failure after the stored one) counts in `other`.
  // The asymmetry is what the dashboards expect and must stay.
  void record(std::string_view name, std::uint64_t value_ms, std::int32_t code, std::string_view message);
  // `count` successful calls at once.
  void record_successes(std::string_view name, std::uint64_t count, std::uint64_t sum_ms, std::uint64_t max_ms);

  // Milliseconds since the last flush, as a double.
  double elapsed_ms(std::int64_t now_ns) const;
  // False without a tracer or once the main-thread scheduler has stopped;
  // otherwise true when at least 500 ms have passed since the last flush.
  bool should_flush(bool tracer_registered, bool scheduler_running, std::int64_t now_ns) const;
  // Marks a flush at `now_ns` and moves every entry out, ordered by name.
  std::vector<ApiStatEntry> take_entries(std::int64_t now_ns);
  std::size_t size() const;

  // At most one flush attempt is pending at a time. A recorder that gets
  // true from begin_flush_attempt() must see that an attempt runs and calls
  // end_flush_attempt() (before taking the entries, so that a record added
  // after the take starts a new attempt).
  bool begin_flush_attempt() noexcept;
  void end_flush_attempt() noexcept;
  bool flush_attempt_pending() const noexcept;

 private:
  // Keys carry their name's hash: it is computed before the lock is taken,
  // and under the lock a lookup compares stored hashes instead of hashing
  // the names of the other entries in the bucket again.
  struct stat_key {
    std::size_t hash;
    std::string name;
  };
  struct hashed_name {
    std::size_t hash;
    std::string_view name;
  };
  struct key_hash {
    using is_transparent = void;
    std::size_t operator()(const stat_key& k) const noexcept { return k.hash; }
    std::size_t operator()(const hashed_name& k) const noexcept { return k.hash; }
  };
  struct key_equal {
    using is_transparent = void;
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const noexcept {
      return a.hash == b.hash && std::string_view(a.name) == std::string_view(b.name);
    }
  };

  // The entry of `key`, made on first use. Under lock_.
  ApiStatEntry& entry_locked(const hashed_name& key);
  mutable std::mutex lock_;
  std::int64_t last_flush_ns_ = 0;
  std::unordered_map<stat_key, ApiStatEntry, key_hash, key_equal> entries_;
  // On a line of its own: every record reads it, and the lock's line next
  // to it is written by every record.
  alignas(64) std::atomic<bool> attempt_pending_{false};
};

}  // namespace ostrel::telemetry
