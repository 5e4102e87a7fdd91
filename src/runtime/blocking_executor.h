// Threads for calls that may block on a slow file system or device: opening
// a watched root, listing and querying files, putting inotify watches. A call
// on a network share that stopped answering can hold its thread for minutes;
// it must never hold a CPU pool worker or the I/O service's thread, which
// every scan, timer and delivery needs.
//
// Threads are made on demand: when work is queued and no thread is idle, a
// new one starts at once while fewer than `eager_threads` run. Past that, one
// thread at a time waits beside the busy ones as a spare: it takes work only
// when the oldest queued item has waited `stall_wait` (the busy threads are
// stuck or slow), and then leaves a new spare behind it, up to `max_threads`.
// So a few stuck threads never hold up work on a healthy disk, and a burst of
// quick calls (a watch's metadata queries after 300 changes) runs on a few
// threads instead of starting dozens. Idle threads end after a while.
// Threads are detached and hold the executor, so one stuck past the
// runtime's end is abandoned without harm: it finishes its call, finds the
// executor stopped and ends.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>

#include "cancellation.h"
#include "coroutine_chain.h"

namespace ostrel {

class blocking_executor : public std::enable_shared_from_this<blocking_executor> {
 public:
  // One queued resumption. `cancelled` is set when its token was cancelled
  // before a thread took it; the task is then resumed on `fallback`.
  struct item {
    resumable task;
    cancellation_token token;
    bool* cancelled = nullptr;
    std::chrono::steady_clock::time_point queued_at{};  // set by post
  };

  static std::shared_ptr<blocking_executor> create(
      std::size_t max_threads, std::chrono::milliseconds idle_exit = std::chrono::seconds(10),
      std::size_t eager_threads = 4, std::chrono::milliseconds stall_wait = std::chrono::milliseconds(50));

  // Queues `i`. A task whose token is cancelled by the time a thread takes it
  // is handed to `on_cancelled` instead of being resumed on that thread.
  // Once stopped, the task is freed (it can never run here). Never blocks.
  // A cancellation is seen only when a thread takes the task: with every
  // thread stuck, a cancelled task waits in the queue like any other.
  void post(item i);
  // Stops taking work and frees what is queued; idle threads end at once.
  // Waits at most `grace` for busy threads to end; false when one was left
  // running (it ends by itself when its call returns).
  bool stop(std::chrono::milliseconds grace);

  // Where a cancelled task goes on (the CPU pool); set once at creation.
  void set_cancelled_sink(std::function<void(resumable)> sink);

  bool is_executor_thread() const noexcept;
  std::size_t threads() const;  // threads alive now (for tests)

 private:
  blocking_executor(std::size_t max_threads, std::chrono::milliseconds idle_exit, std::size_t eager_threads,
                    std::chrono::milliseconds stall_wait);
  void run(bool spare);
  // With the lock held: waits as the spare until work has waited too long
  // (true: take it) or none is left or the executor stops (false).
  bool wait_as_spare(std::unique_lock<std::mutex>& lock);
  void start_thread_locked(bool spare);

  const std::size_t max_threads_;
  const std::chrono::milliseconds idle_exit_;
  const std::size_t eager_threads_;
  const std::chrono::milliseconds stall_wait_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable spare_wake_;  // only at stop: the spare looks on its own
  std::condition_variable ended_;
  std::deque<item> queue_;
  std::function<void(resumable)> cancelled_sink_;
  std::size_t threads_ = 0;
  std::size_t idle_ = 0;
  bool spare_ = false;  // a spare thread is waiting
  bool stopping_ = false;
};

}  // namespace ostrel
