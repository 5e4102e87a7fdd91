// A fixed pool of worker threads that resume awaiting coroutines.
#pragma once

#include <chrono>
#include <coroutine>
#include <cstddef>
#include <deque>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "coroutine_chain.h"

namespace ostrel {

class thread_pool {
 public:
  // The module's size rule: at least 4 workers, else one per hardware thread.
  static std::size_t default_size(unsigned hardware_threads);

  explicit thread_pool(std::size_t workers);
  ~thread_pool();  // shuts down and joins
  thread_pool(const thread_pool&) = delete;
  thread_pool& operator=(const thread_pool&) = delete;

  std::size_t size() const noexcept { return threads_.size(); }

  class schedule_operation {
   public:
    explicit schedule_operation(thread_pool& pool) noexcept : pool_(pool) {}
    bool await_ready() const noexcept { return false; }
    template <typename P>
    void await_suspend(std::coroutine_handle<P> h) {
      pool_.enqueue(resumable(h));
    }
    void await_resume() const noexcept {}

   private:
    thread_pool& pool_;
  };

  // co_await pool.schedule() continues the coroutine on a worker.
  schedule_operation schedule() noexcept { return schedule_operation(*this); }

  // Ends the workers once they return to the queue; queued coroutines that
  // were never resumed are destroyed. Idempotent; joins the threads.
  void shutdown() { shutdown(std::chrono::milliseconds::max()); }
  // The same, waiting at most `grace` for the workers to return; a worker
  // still busy then (a blocking call that nothing can wake) is detached, and
  // false is returned: the pool must then never be freed, since that worker
  // comes back to it. Used on the way out of the process, which must not
  // hang on one slow system call.
  bool shutdown(std::chrono::milliseconds grace);

  bool is_worker_thread() const noexcept;

  // Resumes `h` on a worker; once the pool is shut down, frees it instead
  // (it can never run there).
  void post(resumable h) { enqueue(h); }

 private:
  void enqueue(resumable h);
  void run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<resumable> queue_;
  bool stopping_ = false;
  std::condition_variable exited_;
  std::vector<std::thread> threads_;
  std::vector<char> running_;  // per thread: still inside run(); under mutex_
};

}  // namespace ostrel
