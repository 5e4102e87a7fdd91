// The process-wide I/O service: one thread pumps it (process_events), and on
// that thread it resumes coroutines that scheduled onto it, timed waits that
// expired and overlapped operations that completed. Windows drives it with a
// completion port and a waitable-timer thread; Linux with epoll, an eventfd
// and a timerfd. The guarantees are the same on both.
#pragma once

#include <atomic>
#include <chrono>
#include <coroutine>
#include <cstdint>
#include <memory>
#include <optional>

#include "cancellation.h"
#include "clock.h"
#include "coroutine_chain.h"
#include "exceptions.h"
#include "io_state.h"
#include "timer_queue.h"

namespace ostrel {

namespace detail {
class io_timers;
}

class io_service {
 public:
  io_service();
  ~io_service();
  io_service(const io_service&) = delete;
  io_service& operator=(const io_service&) = delete;

  // Resumes work on the calling thread until stop(); returns the number of
  // items processed. Throws std::system_error when the wait itself fails.
  std::uint64_t process_events();
  // Makes every thread inside process_events return, now and later.
  void stop() noexcept;
  bool is_stop_requested() const noexcept { return stop_requested_.load(std::memory_order_acquire); }
  // After stop(), once no thread pumps the service any more: frees the tasks
  // behind pending timed waits and posted resumptions, and from now on frees
  // those that arrive instead of queueing them. A task parked here may hold
  // the service itself; without this, the two would keep each other alive.
  void close() noexcept;
  bool is_service_thread() const noexcept;

  class schedule_operation : detail::io_state {
   public:
    explicit schedule_operation(io_service& s) noexcept : io_state(&on_complete), service_(s) {}
    bool await_ready() const noexcept { return false; }
    template <typename P>
    void await_suspend(std::coroutine_handle<P> h) {
      waiter_ = resumable(h);
      service_.post(this, 0, 0);
    }
    void await_resume() const noexcept {}

   private:
    friend class io_service;
    static void on_complete(io_state* s, std::uint32_t, std::size_t) noexcept {
      static_cast<schedule_operation*>(s)->waiter_.resume();
    }
    io_service& service_;
    resumable waiter_;
  };

  class timed_schedule_operation : detail::io_state {
   public:
    timed_schedule_operation(io_service& s, std::int64_t deadline_ns, cancellation_token ct) noexcept
        : io_state(&on_complete), service_(s), deadline_ns_(deadline_ns), token_(std::move(ct)) {}
    timed_schedule_operation(timed_schedule_operation&& other) noexcept
        : io_state(&on_complete),
          service_(other.service_),
          deadline_ns_(other.deadline_ns_),
          token_(std::move(other.token_)) {}
    bool await_ready() const noexcept { return token_.is_cancellation_requested(); }
    template <typename P>
    void await_suspend(std::coroutine_handle<P> h) {
      waiter_ = resumable(h);
      service_.add_timer(this);
    }
    void await_resume() {
      registration_.reset();
      if (cancelled_ || token_.is_cancellation_requested()) throw operation_cancelled();
    }

   private:
    friend class io_service;
    static void on_complete(io_state* s, std::uint32_t, std::size_t) noexcept {
      static_cast<timed_schedule_operation*>(s)->waiter_.resume();
    }
    io_service& service_;
    std::int64_t deadline_ns_;
    cancellation_token token_;
    resumable waiter_;
    detail::timer_queue::position position_{};
    // Guarded by the service's timer lock; `cancelled_` is written before the
    // resumption is posted, so the resumed coroutine reads it safely.
    bool queued_ = false;
    bool fired_ = false;
    bool cancelled_ = false;
    std::optional<cancellation_registration> registration_;
  };

  // co_await service.schedule() continues on the service's thread.
  schedule_operation schedule() noexcept { return schedule_operation(*this); }
  // Continues on the service's thread no sooner than `delay` from now, or
  // throws operation_cancelled there once `ct` is cancelled.
  timed_schedule_operation schedule_after(std::chrono::milliseconds delay, cancellation_token ct = {}) noexcept {
    return timed_schedule_operation(
        *this, monotonic_ns() + std::chrono::duration_cast<std::chrono::nanoseconds>(delay).count(), std::move(ct));
  }

  // Delivers a completion for `state` on the service's thread.
  void post(detail::io_state* state, std::uint32_t error, std::size_t bytes);

#ifdef _WIN32
  // Associates a handle opened for overlapped I/O with the completion port.
  // Returns 0 or the Win32 error code.
  std::uint32_t bind(void* handle) noexcept;
#else
  // Completes `state` once `fd` is readable (error 0), or with ECANCELED
  // after cancel_fd_wait. Returns 0 or the errno of epoll_ctl.
  std::uint32_t start_fd_wait(detail::io_state* state, int fd) noexcept;
  void cancel_fd_wait(detail::io_state* state) noexcept;
#endif

 private:
  struct impl;
  void add_timer(timed_schedule_operation* op);
  void cancel_timer(timed_schedule_operation* op) noexcept;
  // Posts every expired timed wait; returns how many.
  std::size_t fire_due_timers();
  // Frees the tasks behind timed waits that can no longer fire.
  void destroy_pending_timers() noexcept;
  // Frees the task behind a posted, never-pumped completion when it is a
  // schedule() or timed wait; other operations are left to their owners.
  static void abandon_posted(detail::io_state* state) noexcept;

  std::atomic<bool> stop_requested_{false};
  std::atomic<bool> closed_{false};  // written under the post and timer locks
  std::unique_ptr<impl> impl_;
  detail::io_timers* timers_ = nullptr;  // the timer half of *impl_
};

// Base of operations that the platform completes through the service (an
// overlapped read on Windows, a readiness wait on Linux), with cancellation.
// Derived supplies:
//   bool start() noexcept       begin the operation; true when its completion
//                               will be delivered through the service, false
//                               when it already failed (set error_ first).
//                               Once the operation is started, its completion
//                               may run at any moment on the service thread:
//                               start() must not write error_ or bytes_ then;
//   void cancel() noexcept      ask the platform to abort it (CancelIoEx);
//   auto result()               the value of the await, given error_/bytes_.
template <typename Derived>
class overlapped_operation : protected detail::io_state {
 public:
  bool await_ready() const noexcept { return false; }

  template <typename P>
  bool await_suspend(std::coroutine_handle<P> h) {
    waiter_ = resumable(h);
    state_.store(state::not_started, std::memory_order_relaxed);
    error_ = 0;
    bytes_ = 0;
    if (token_.is_cancellation_requested()) {
      error_ = detail::io_error_cancelled;
      return false;
    }
    reset_overlapped();
    // TRICKY: register before starting. Registered after, a cancellation
    // arriving between the start and the registration would be lost and the
    // task would wait for a completion that may never come. A cancellation
    // that now arrives before the state says `started` only marks
    // `cancel_early`; the code below sees the mark and cancels itself.
    if (token_.can_be_cancelled()) {
      registration_.emplace(token_, [this]() noexcept { request_cancel(); });
    }
    if (!static_cast<Derived*>(this)->start()) return false;
    // The completion may already have run on the service's thread: whoever
    // moves the state past `not_started` second decides who resumes.
    state expected = state::not_started;
    if (state_.compare_exchange_strong(expected, state::started, std::memory_order_acq_rel)) return true;
    if (expected == state::completed) return false;  // resume inline
    // expected == cancel_early: cancel now. While the state says
    // `cancelling` a completion leaves the resumption to this thread, so the
    // operation is not freed under cancel().
    expected = state::cancel_early;
    if (!state_.compare_exchange_strong(expected, state::cancelling, std::memory_order_acq_rel)) return false;
    static_cast<Derived*>(this)->cancel();
    expected = state::cancelling;
    return state_.compare_exchange_strong(expected, state::cancel_requested, std::memory_order_acq_rel);
  }

  decltype(auto) await_resume() {
    registration_.reset();
    if (error_ == detail::io_error_cancelled) throw operation_cancelled();
    return static_cast<Derived*>(this)->result();
  }

 protected:
  explicit overlapped_operation(cancellation_token ct = {}) noexcept : io_state(&on_complete), token_(std::move(ct)) {}

  std::uint32_t error_ = 0;
  std::size_t bytes_ = 0;

 private:
  // not_started --start--> started --cancel--> cancel_requested --> completed
  // not_started --cancel before started--> cancel_early --> cancelling
  //   --> cancel_requested (await_suspend cancels on the requester's behalf)
  enum class state { not_started, cancel_early, cancelling, started, cancel_requested, completed };

  // Any thread, at any moment, at most once per registration.
  void request_cancel() noexcept {
    state s = state_.load(std::memory_order_acquire);
    for (;;) {
      if (s == state::not_started) {
        if (state_.compare_exchange_weak(s, state::cancel_early, std::memory_order_acq_rel)) return;
      } else if (s == state::started) {
        if (state_.compare_exchange_weak(s, state::cancel_requested, std::memory_order_acq_rel)) {
          // The registration's destructor (in await_resume) waits for this
          // callback, so the operation outlives cancel() even if the
          // completion resumes the task meanwhile.
          static_cast<Derived*>(this)->cancel();
          return;
        }
      } else {
        return;  // cancelled already, or completed
      }
    }
  }

  static void on_complete(io_state* s, std::uint32_t error, std::size_t bytes) noexcept {
    auto* self = static_cast<overlapped_operation*>(s);
    self->error_ = error;
    self->bytes_ = bytes;
    state old = self->state_.exchange(state::completed, std::memory_order_acq_rel);
    // Before `started` (and while await_suspend cancels) the suspending
    // thread sees `completed` and resumes the task itself.
    if (old == state::started || old == state::cancel_requested) self->waiter_.resume();
  }

  cancellation_token token_;
  resumable waiter_;
  std::atomic<state> state_{state::not_started};
  std::optional<cancellation_registration> registration_;
};

}  // namespace ostrel
