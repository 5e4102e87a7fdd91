// A fixed pool of worker threads that resume awaiting coroutines.
#pragma once

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
  void shutdown();

  bool is_worker_thread() const noexcept;

 private:
  void enqueue(resumable h);
  void run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<resumable> queue_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace ostrel
