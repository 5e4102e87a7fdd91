// Auto-reset events: a blocking one for threads, an awaitable one for tasks.
#pragma once

#include <condition_variable>
#include <coroutine>
#include <deque>
#include <mutex>

#include "coroutine_chain.h"

namespace ostrel {

// A thread blocks in wait() until set(); each set() releases one wait.
// On Windows it wraps a Win32 auto-reset event and throws std::system_error
// ("auto_reset_event: CreateEvent failed" and the like) when a call fails.
class auto_reset_event {
 public:
  explicit auto_reset_event(bool initially_set = false);
  ~auto_reset_event();
  auto_reset_event(const auto_reset_event&) = delete;
  auto_reset_event& operator=(const auto_reset_event&) = delete;

  void set();
  void wait();

 private:
#ifdef _WIN32
  void* event_ = nullptr;
#else
  std::mutex mutex_;
  std::condition_variable cv_;
  bool set_ = false;
#endif
};

// co_await event resumes once the event is set, consuming the set; set()
// resumes one waiter inline on the calling thread, or leaves the event set
// for the next await when nobody waits.
class async_auto_reset_event {
 public:
  explicit async_auto_reset_event(bool initially_set = false) noexcept : set_(initially_set) {}
  ~async_auto_reset_event();

  class awaiter {
   public:
    explicit awaiter(async_auto_reset_event& e) noexcept : event_(e) {}
    bool await_ready() const noexcept { return false; }
    template <typename P>
    bool await_suspend(std::coroutine_handle<P> h) {
      return event_.enqueue(resumable(h));
    }
    void await_resume() const noexcept {}

   private:
    async_auto_reset_event& event_;
  };

  awaiter operator co_await() noexcept { return awaiter(*this); }
  void set();
  void reset() noexcept;
  bool is_set() const noexcept;

 private:
  // False when the event was set (consumed; resume at once).
  bool enqueue(resumable h);

  mutable std::mutex mutex_;
  bool set_;
  std::deque<resumable> waiters_;
};

}  // namespace ostrel
