// Blocks the calling thread until an awaitable completes. For tests, the
// command-line tools and start-up code only: never call it on a thread that
// the awaited work needs (the main thread or the I/O service's thread).
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

#include "task.h"

namespace ostrel {

namespace detail {
struct sync_flag {
  std::mutex m;
  std::condition_variable cv;
  bool done = false;
  void set() {
    std::lock_guard lock(m);
    done = true;
    cv.notify_all();
  }
  void wait() {
    std::unique_lock lock(m);
    cv.wait(lock, [this] { return done; });
  }
};

// A fire-and-forget coroutine that signals the flag when it ends.
struct sync_runner {
  struct promise_type {
    sync_runner get_return_object() noexcept { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() noexcept {}
    void unhandled_exception() noexcept { std::terminate(); }
  };
};
}  // namespace detail

// Runs a task to completion on the threads it chooses and returns its result.
template <typename Task>
auto sync_wait(Task&& t) -> typename std::remove_cvref_t<Task>::value_type {
  detail::sync_flag flag;
  std::exception_ptr error;
  if constexpr (std::is_void_v<typename std::remove_cvref_t<Task>::value_type>) {
    [](Task&& a, detail::sync_flag& f, std::exception_ptr& e) -> detail::sync_runner {
      try {
        co_await std::forward<Task>(a);
      } catch (...) {
        e = std::current_exception();
      }
      f.set();
    }(std::forward<Task>(t), flag, error);
    flag.wait();
    if (error) std::rethrow_exception(error);
  } else {
    using T = typename std::remove_cvref_t<Task>::value_type;
    std::optional<std::remove_reference_t<T>> value;
    [](Task&& a, detail::sync_flag& f, std::exception_ptr& e,
       std::optional<std::remove_reference_t<T>>& v) -> detail::sync_runner {
      try {
        v.emplace(co_await std::forward<Task>(a));
      } catch (...) {
        e = std::current_exception();
      }
      f.set();
    }(std::forward<Task>(t), flag, error, value);
    flag.wait();
    if (error) std::rethrow_exception(error);
    return std::move(*value);
  }
}

}  // namespace ostrel
