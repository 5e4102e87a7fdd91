// The native half of a media player: the mailbox that takes the SDK's
// notifications on the SDK's threads, and the holder that owns the SDK
// player. No script here: the binding's pump carries queued notifications
// to script on the main thread.
//
// Ownership and threads. The holder is shared by the script object and by
// every command in flight (a prepare waiting on a job thread), so the SDK
// player outlives a dispose until the last command has returned; the last
// owner destroys it (entry 7), on whatever thread that is. The holder owns
// the mailbox, whose address is the listener's context, until the SDK's
// destroy has returned: the SDK may call the listener up to that moment
// (from several threads at once) and never after, so the mailbox is alive
// for every notification. The mailbox never calls into the player.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "corvex_sdk.h"
#include "runtime/events.h"

namespace ostrel::media {

using string_pairs = std::vector<std::pair<std::string, std::string>>;

struct notification {
  std::int32_t what = 0;
  std::int32_t extra1 = 0;
  std::int32_t extra2 = 0;
  bool has_info = false;
  string_pairs info;
};

enum class prepare_outcome { prepared, failed, released, timed_out };

// The cost of a T3 map: "endMs" - "startMs" as base-10 integers (a missing
// key counts as 0). Throws std::invalid_argument on a value that is not an
// integer.
std::int64_t t3_cost(const string_pairs& map);
// The cost of a statistics map: "an_t3" - "an_f_start" (a missing key counts
// as 0); throws as t3_cost does.
std::int64_t stat_info_cost(const string_pairs& map);

// What a notification does besides its delivery: the T3, error and
// statistics-map statistics and the "corvex_stat" fact. A failure is
// reported as "onNotifyError" and never thrown.
void report_notification_stats(const notification& n) noexcept;

class player_mailbox {
 public:
  // `queue_events`: keep notifications for a pump (a script player); a
  // probe that only waits for the preparation keeps none.
  explicit player_mailbox(bool queue_events);
  player_mailbox(const player_mailbox&) = delete;
  player_mailbox& operator=(const player_mailbox&) = delete;

  // The listener handed to the SDK; its context is this mailbox.
  const corvex_listener* listener() const noexcept { return &listener_; }

  // SDK threads: the state flags, the statistics, the preparation's outcome,
  // then the queue and a wake-up of the pump.
  void on_notify(std::int32_t what, std::int32_t extra1, std::int32_t extra2, const corvex_string_map* info) noexcept;

  bool paused() const noexcept { return paused_.load(std::memory_order_relaxed); }
  bool buffering() const noexcept { return buffering_.load(std::memory_order_relaxed); }

  // At most this many notifications wait for the pump; more are dropped
  // (and counted) until it catches up: a listener slower than the SDK must
  // not grow the queue without bound.
  static constexpr std::size_t max_queued = 10000;

  // The pump: awaits `wake()`, then takes queued notifications, oldest
  // first, at most `max` at a time. `dropped` receives (and resets) the count
  // of notifications dropped since the last take.
  async_auto_reset_event& wake() noexcept { return wake_; }
  std::vector<notification> take(std::size_t max, std::size_t& dropped);
  std::vector<notification> take_all() {
    std::size_t dropped = 0;
    return take(static_cast<std::size_t>(-1), dropped);
  }

  // A preparation: begin before asking the SDK (its answer may come at
  // once), then wait for event 1 (prepared) or 100 (error), for
  // cancel_prepare (the module's own stop), for release, or for `timeout`.
  // A later begin makes an earlier wait fail. Event 8 (stopped) does not
  // end a wait: a stop issued before the preparation may report it late.
  std::uint64_t begin_prepare();
  prepare_outcome wait_prepare(std::uint64_t id, std::chrono::milliseconds timeout);
  void cancel_prepare() noexcept;

  // Any thread, idempotent: no more queueing, every wait ends, the pump
  // wakes (and ends).
  void release() noexcept;
  bool released() const noexcept { return released_.load(); }

  std::size_t notifications() const noexcept { return received_.load(std::memory_order_relaxed); }

 private:
  static void CORVEX_CALL notify_thunk(void* context, std::int32_t what, std::int32_t extra1, std::int32_t extra2,
                                       const corvex_string_map* info);

  const bool queue_events_;
  corvex_listener listener_{};
  std::atomic<bool> paused_{false};
  std::atomic<bool> buffering_{false};
  std::atomic<bool> released_{false};
  std::atomic<std::size_t> received_{0};

  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<notification> queue_;
  std::size_t dropped_ = 0;
  std::uint64_t prepare_id_ = 0;   // the current preparation
  std::uint64_t answered_id_ = 0;  // the last preparation answered
  prepare_outcome answer_ = prepare_outcome::failed;
  async_auto_reset_event wake_;
};

class player_holder {
 public:
  // CreateUniqueMediaPlayer: entry 6 with a new mailbox's listener, the
  // statistic "CreateUniqueMediaPlayer", then the two player options. Null
  // (after logging "CreateUniqueMediaPlayer failed") when the SDK gave no
  // player.
  static std::shared_ptr<player_holder> create(bool queue_events);
  // Releases the mailbox and destroys the SDK player (entry 7).
  ~player_holder();
  player_holder(const player_holder&) = delete;
  player_holder& operator=(const player_holder&) = delete;

  const std::shared_ptr<player_mailbox>& mailbox() const noexcept { return mailbox_; }
  const corvex_player_ops& ops() const noexcept { return *player_->ops; }
  corvex_player* player() const noexcept { return player_; }

  // Blocking (a job thread): asks the SDK to prepare `url` with `headers`
  // and waits for the outcome.
  prepare_outcome prepare(const std::string& url, const string_pairs& headers, std::chrono::milliseconds timeout);
  std::int32_t set_option(const std::string& key, const std::string& value);

 private:
  player_holder(std::shared_ptr<player_mailbox> mailbox, corvex_player* player) noexcept
      : mailbox_(std::move(mailbox)), player_(player) {}
  std::shared_ptr<player_mailbox> mailbox_;
  corvex_player* player_;
};

}  // namespace ostrel::media
