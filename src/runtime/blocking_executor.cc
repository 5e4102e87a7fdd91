#include "blocking_executor.h"

#include <algorithm>
#include <thread>

#include "log.h"

namespace ostrel {

namespace {
thread_local const blocking_executor* current_executor = nullptr;
}

std::shared_ptr<blocking_executor> blocking_executor::create(std::size_t max_threads,
                                                             std::chrono::milliseconds idle_exit,
                                                             std::size_t eager_threads,
                                                             std::chrono::milliseconds stall_wait) {
  return std::shared_ptr<blocking_executor>(new blocking_executor(max_threads, idle_exit, eager_threads, stall_wait));
}

blocking_executor::blocking_executor(std::size_t max_threads, std::chrono::milliseconds idle_exit,
                                     std::size_t eager_threads, std::chrono::milliseconds stall_wait)
    : max_threads_(max_threads ? max_threads : 1),
      idle_exit_(idle_exit),
      eager_threads_(eager_threads ? eager_threads : 1),
      stall_wait_(stall_wait) {}

void blocking_executor::set_cancelled_sink(std::function<void(resumable)> sink) {
  std::lock_guard lock(mutex_);
  cancelled_sink_ = std::move(sink);
}

void blocking_executor::post(item i) {
  {
    std::lock_guard lock(mutex_);
    if (!stopping_) {
      i.queued_at = std::chrono::steady_clock::now();
      queue_.push_back(std::move(i));
      if (idle_ > 0) {
        wake_.notify_one();
      } else if (threads_ < std::min(eager_threads_, max_threads_)) {
        start_thread_locked(false);
      } else if (!spare_ && threads_ < max_threads_) {
        // Every thread is busy: a spare takes this work if it waits too long
        // (a thread stuck on a share that stopped answering counts as busy).
        start_thread_locked(true);
      }
      return;
    }
  }
  i.task.destroy();  // stopped: the task can never run here
}

void blocking_executor::start_thread_locked(bool spare) {
  ++threads_;
  if (spare) spare_ = true;
  try {
    // The thread holds the executor: a thread abandoned past the runtime's
    // end still finds it when its call returns.
    std::thread([self = shared_from_this(), spare] { self->run(spare); }).detach();
  } catch (const std::system_error& e) {
    --threads_;
    if (spare) spare_ = false;
    log::err_value("blocking_executor: no thread could be started: ", e.what());
    wake_.notify_one();  // an existing thread takes the work when it is free
  }
}

bool blocking_executor::wait_as_spare(std::unique_lock<std::mutex>& lock) {
  // A spare stands by for `stall_wait` at least, so that threads are added
  // one per `stall_wait` while work waits: slow calls that keep going get a
  // few more threads, stuck ones one more each.
  const auto started = std::chrono::steady_clock::now();
  for (;;) {
    if (stopping_ || queue_.empty()) break;
    const auto now = std::chrono::steady_clock::now();
    const auto due = std::max(queue_.front().queued_at, started) + stall_wait_;
    if (now >= due) {
      // The busy threads left the oldest work waiting too long: this thread
      // takes it, and a new spare stands by for what is still queued.
      spare_ = false;
      if (queue_.size() > 1 && threads_ < max_threads_) start_thread_locked(true);
      return true;
    }
    spare_wake_.wait_for(lock, due - now, [this] { return stopping_; });
  }
  spare_ = false;
  return false;
}

void blocking_executor::run(bool spare) {
  current_executor = this;
  std::unique_lock lock(mutex_);
  // A spare that finds the work done goes on as an ordinary idle thread.
  bool take_now = spare && wait_as_spare(lock);
  for (;;) {
    if (!take_now) {
      ++idle_;
      const bool woken = wake_.wait_for(lock, idle_exit_, [this] { return stopping_ || !queue_.empty(); });
      --idle_;
      if (stopping_ || (!woken && queue_.empty())) break;
    }
    take_now = false;
    if (stopping_ || queue_.empty()) break;
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
    spare_wake_.notify_all();
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
