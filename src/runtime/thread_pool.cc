#include "thread_pool.h"

#include <algorithm>

namespace ostrel {

namespace {
thread_local const thread_pool* current_pool = nullptr;
}

std::size_t thread_pool::default_size(unsigned hardware_threads) {
  return std::max<std::size_t>(4, hardware_threads);
}

thread_pool::thread_pool(std::size_t workers) : running_(workers, 1) {
  threads_.reserve(workers);
  for (std::size_t i = 0; i < workers; ++i) {
    threads_.emplace_back([this, i] {
      run();
      std::lock_guard lock(mutex_);
      running_[i] = 0;
      exited_.notify_all();
    });
  }
}

thread_pool::~thread_pool() {
  shutdown();
}

void thread_pool::enqueue(resumable h) {
  {
    std::lock_guard lock(mutex_);
    if (!stopping_) {
      queue_.push_back(h);
      wake_.notify_one();
      return;
    }
  }
  // The pool is gone: the coroutine can never run on it. Freeing it is the
  // only way not to leak its frame.
  h.destroy();
}

void thread_pool::run() {
  current_pool = this;
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (stopping_) break;
    auto h = queue_.front();
    queue_.pop_front();
    lock.unlock();
    h.resume();
    lock.lock();
  }
}

bool thread_pool::shutdown(std::chrono::milliseconds grace) {
  std::deque<resumable> abandoned;
  bool all_joined = true;
  {
    std::unique_lock lock(mutex_);
    if (stopping_ && threads_.empty()) return true;
    stopping_ = true;
    wake_.notify_all();
    const auto self = std::this_thread::get_id();
    auto done = [&] {
      for (std::size_t i = 0; i < threads_.size(); ++i) {
        if (running_[i] && threads_[i].get_id() != self) return false;
      }
      return true;
    };
    if (grace == std::chrono::milliseconds::max()) {
      exited_.wait(lock, done);
    } else {
      exited_.wait_for(lock, grace, done);
    }
    std::vector<std::thread> threads;
    threads.swap(threads_);
    std::vector<char> running = running_;
    lock.unlock();
    for (std::size_t i = 0; i < threads.size(); ++i) {
      if (!threads[i].joinable()) continue;
      if (threads[i].get_id() == self) {
        threads[i].detach();  // shut down from one of its own workers
      } else if (!running[i]) {
        threads[i].join();  // returned from run(): the join is immediate
      } else {
        threads[i].detach();
        all_joined = false;
      }
    }
    lock.lock();
    abandoned.swap(queue_);
  }
  for (auto h : abandoned) h.destroy();
  return all_joined;
}

bool thread_pool::is_worker_thread() const noexcept {
  return current_pool == this;
}

}  // namespace ostrel
