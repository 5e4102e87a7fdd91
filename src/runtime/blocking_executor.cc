#include "blocking_executor.h"

#include <thread>

#include "log.h"

namespace ostrel {

namespace {
thread_local const blocking_executor* current_executor = nullptr;
}

std::shared_ptr<blocking_executor> blocking_executor::create(std::size_t max_threads,
                                                             std::chrono::milliseconds idle_exit) {
  return std::shared_ptr<blocking_executor>(new blocking_executor(max_threads, idle_exit));
}

blocking_executor::blocking_executor(std::size_t max_threads, std::chrono::milliseconds idle_exit)
    : max_threads_(max_threads ? max_threads : 1), idle_exit_(idle_exit) {}

void blocking_executor::set_cancelled_sink(std::function<void(resumable)> sink) {
  std::lock_guard lock(mutex_);
  cancelled_sink_ = std::move(sink);
}

void blocking_executor::post(item i) {
  {
    std::lock_guard lock(mutex_);
    if (!stopping_) {
      queue_.push_back(std::move(i));
      // A thread stuck in a call counts as busy: work behind it gets a new
      // thread rather than waiting for a share that may never answer.
      if (idle_ == 0 && threads_ < max_threads_) {
        start_thread_locked();
      } else {
        wake_.notify_one();
      }
      return;
    }
  }
  i.task.destroy();  // stopped: the task can never run here
}

void blocking_executor::start_thread_locked() {
  ++threads_;
  try {
    // The thread holds the executor: a thread abandoned past the runtime's
    // end still finds it when its call returns.
    std::thread([self = shared_from_this()] { self->run(); }).detach();
  } catch (const std::system_error& e) {
    --threads_;
    log::err_value("blocking_executor: no thread could be started: ", e.what());
    wake_.notify_one();  // an existing thread takes the work when it is free
  }
}

void blocking_executor::run() {
  current_executor = this;
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    const bool woken = wake_.wait_for(lock, idle_exit_, [this] { return stopping_ || !queue_.empty(); });
    --idle_;
    if (stopping_ || (!woken && queue_.empty())) break;
    item i = std::move(queue_.front());
    queue_.pop_front();
    if (i.token.is_cancellation_requested()) {
      auto sink = cancelled_sink_;
      lock.unlock();
      if (i.cancelled) *i.cancelled = true;
      if (sink) {
        sink(i.task);
      } else {
        i.task.destroy();
      }
    } else {
      lock.unlock();
      i.task.resume();
    }
    i = {};
    lock.lock();
  }
  --threads_;
  ended_.notify_all();
  current_executor = nullptr;
}

bool blocking_executor::stop(std::chrono::milliseconds grace) {
  std::deque<item> abandoned;
  bool all_ended;
  {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    abandoned.swap(queue_);
    wake_.notify_all();
    const bool self = current_executor == this;
    all_ended = ended_.wait_for(lock, grace, [&] { return threads_ == (self ? 1u : 0u); });
  }
  for (auto& i : abandoned) i.task.destroy();
  return all_ended;
}

bool blocking_executor::is_executor_thread() const noexcept {
  return current_executor == this;
}

std::size_t blocking_executor::threads() const {
  std::lock_guard lock(mutex_);
  return threads_;
}

}  // namespace ostrel
