// Where blocking work runs. The I/O service's thread serves every watcher's
// reads and every timer, so a task must never block there; after a timed
// wait or an I/O completion it hops to the pool first:
//
//   co_await io->schedule_after(100ms);
//   co_await on_pool();               // now a blocking query is fine
//
// A long job that blocks (a folder walk, a WMI query, a COM call) runs start
// to finish on a thread of its own, so that it never holds a pool worker
// that other tasks wait for, and so that the COM apartment it initialises is
// the one it uses (nothing inside can move it to another thread):
//
//   auto job = on_own_thread([&] { com_guard com; return query(); });
//   Result r = co_await job;
//
// The awaiting task then continues on a pool worker.
//
// A call that may block on a slow file system or device (opening, listing or
// querying files, putting inotify watches) hops to the blocking executor,
// never to the pool: a share that stopped answering then holds one of its
// threads, not a worker that scans, timers and deliveries need:
//
//   co_await on_blocking(session_token);   // may throw operation_cancelled
//   auto info = query(path);               // blocks as long as it must
//   co_await on_pool();                    // back to CPU work
//
// Name the awaiter as above: GCC 12 destroys the captures of a lambda written inside a co_await
// expression twice (seen as a use-after-free under AddressSanitizer).
#pragma once

#include <coroutine>
#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "blocking_executor.h"
#include "exceptions.h"
#include "runtime.h"

namespace ostrel {

// Thrown into a task that tries to hop onto a runtime that has stopped.
class runtime_stopped : public std::runtime_error {
 public:
  runtime_stopped() : std::runtime_error("the ostrel runtime is not running") {}
};

class pool_hop {
 public:
  bool await_ready() const noexcept { return false; }
  template <typename P>
  bool await_suspend(std::coroutine_handle<P> h) {
    auto p = runtime::pool();
    if (!p) return false;  // resume here; await_resume throws
    pool_ = true;
    p->post(resumable(h));
    return true;
  }
  void await_resume() const {
    if (!pool_) throw runtime_stopped();
  }

 private:
  bool pool_ = false;
};

// co_await on_pool() continues the task on a pool worker.
inline pool_hop on_pool() noexcept {
  return {};
}

template <typename R>
class own_thread_job {
 public:
  explicit own_thread_job(std::function<R()> job) : job_(std::move(job)) {}
  own_thread_job(own_thread_job&&) = delete;

  bool await_ready() const noexcept { return false; }
  template <typename P>
  bool await_suspend(std::coroutine_handle<P> h) {
    waiter_ = resumable(h);
    // The task goes on on the pool of the runtime it started in; a job that
    // outlives that runtime finds the pool stopped and the task is freed.
    pool_ = runtime::pool();
    // TRICKY: once the thread is started it may finish and resume the task
    // (freeing this awaiter) before start_job_thread returns; nothing here
    // touches `this` after a successful start.
    if (pool_ && runtime::start_job_thread([this] { run(); })) return true;
    pool_.reset();
    error_ = std::make_exception_ptr(runtime_stopped());
    return false;
  }
  R await_resume() {
    if (error_) std::rethrow_exception(error_);
    if constexpr (!std::is_void_v<R>) return std::move(*value_);
  }

 private:
  void run() noexcept {
    try {
      if constexpr (std::is_void_v<R>) {
        job_();
      } else {
        value_.emplace(job_());
      }
    } catch (...) {
      error_ = std::current_exception();
    }
    job_ = nullptr;
    resumable w = waiter_;
    std::shared_ptr<thread_pool> p = std::move(pool_);
    p->post(w);  // frees the task if the pool has stopped
  }

  std::function<R()> job_;
  resumable waiter_;
  std::shared_ptr<thread_pool> pool_;
  std::exception_ptr error_;
  std::optional<std::conditional_t<std::is_void_v<R>, char, R>> value_;
};

// co_await on_own_thread(job) runs job() on a thread of its own and gives
// its result (or rethrows its exception) on a pool worker.
template <typename Fn>
own_thread_job<std::invoke_result_t<Fn&>> on_own_thread(Fn job) {
  return own_thread_job<std::invoke_result_t<Fn&>>(std::function<std::invoke_result_t<Fn&>()>(std::move(job)));
}

// Trivially destructible on purpose: GCC 12 destroys some temporaries of a
// co_await expression twice, and `co_await on_blocking(token)` is written
// inline. The token is only read while the task is suspended in the
// expression, where the caller's token (even a temporary one) is alive; the
// executor keeps its own copy.
class blocking_hop {
 public:
  explicit blocking_hop(const cancellation_token* token) noexcept : token_(token) {}
  bool await_ready() const noexcept { return false; }
  template <typename P>
  bool await_suspend(std::coroutine_handle<P> h) {
    static const cancellation_token never;
    const cancellation_token& token = token_ ? *token_ : never;
    if (token.is_cancellation_requested()) {
      cancelled_ = true;
      return false;
    }
    auto executor = runtime::blocking();
    if (!executor) {
      stopped_ = true;
      return false;
    }
    // TRICKY: a thread may take the task and resume it (freeing this awaiter)
    // before post returns; `cancelled_` is written only before the resume.
    executor->post({resumable(h), token, &cancelled_});
    return true;
  }
  void await_resume() const {
    if (stopped_) throw runtime_stopped();
    if (cancelled_) throw operation_cancelled();
  }

 private:
  const cancellation_token* token_;
  bool cancelled_ = false;
  bool stopped_ = false;
};

static_assert(std::is_trivially_destructible_v<blocking_hop>);

// co_await on_blocking(token) continues the task on a thread of the blocking
// executor. When `token` is cancelled before a thread takes the task, it
// goes on on the pool with operation_cancelled instead.
inline blocking_hop on_blocking(const cancellation_token& token) noexcept {
  return blocking_hop(&token);
}
inline blocking_hop on_blocking() noexcept {
  return blocking_hop(nullptr);
}

}  // namespace ostrel
