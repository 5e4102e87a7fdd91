// Threads for calls that may block on a slow file system or device: opening
// a watched root, listing and querying files, putting inotify watches. A call
// on a network share that stopped answering can hold its thread for minutes;
// it must never hold a CPU pool worker or the I/O service's thread, which
// every scan, timer and delivery needs.
//
// Threads are made on demand: when work is queued and no thread is idle, a
// new one starts, up to `max_threads`; so a few stuck threads never hold up
// work on a healthy disk. Idle threads end after a while. Threads are
// detached and hold the executor, so one stuck past the runtime's end is
// abandoned without harm: it finishes its call, finds the executor stopped
// and ends.
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
  };

  static std::shared_ptr<blocking_executor> create(std::size_t max_threads,
                                                   std::chrono::milliseconds idle_exit = std::chrono::seconds(10));

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
  blocking_executor(std::size_t max_threads, std::chrono::milliseconds idle_exit);
  void run();
  void start_thread_locked();

  const std::size_t max_threads_;
  const std::chrono::milliseconds idle_exit_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable ended_;
  std::deque<item> queue_;
  std::function<void(resumable)> cancelled_sink_;
  std::size_t threads_ = 0;
  std::size_t idle_ = 0;
  bool stopping_ = false;
};

}  // namespace ostrel
