#include "thread_pool.h"

#include <algorithm>

namespace ostrel {

namespace {
thread_local const thread_pool* current_pool = nullptr;
}

std::size_t thread_pool::default_size(unsigned hardware_threads) {
  return std::max<std::size_t>(4, hardware_threads);
}

thread_pool::thread_pool(std::size_t workers) {
  threads_.reserve(workers);
  for (std::size_t i = 0; i < workers; ++i) threads_.emplace_back([this] { run(); });
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

void thread_pool::shutdown() {
  std::deque<resumable> abandoned;
  {
    std::lock_guard lock(mutex_);
    if (stopping_ && threads_.empty()) return;
    stopping_ = true;
    wake_.notify_all();
  }
  for (auto& t : threads_) {
    if (t.joinable() && t.get_id() != std::this_thread::get_id())
      t.join();
    else if (t.joinable())
      t.detach();
  }
  threads_.clear();
  {
    std::lock_guard lock(mutex_);
    abandoned.swap(queue_);
  }
  for (auto h : abandoned) h.destroy();
}

bool thread_pool::is_worker_thread() const noexcept {
  return current_pool == this;
}

}  // namespace ostrel
