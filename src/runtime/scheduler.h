// The main-thread scheduler. A task awaits schedule() to continue on the
// script's main thread: it is queued, the event loop is woken through one
// libuv async handle, and the handle's callback resumes queued tasks inside a
// handle scope and a callback scope, for at most 100 ms per run. The async
// handle exists while references are held (add_ref/release), which keeps the
// event loop, and so the process, alive.
#pragma once

#include <node_api.h>
#include <uv.h>

#include <atomic>
#include <coroutine>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "coroutine_chain.h"

namespace ostrel {

class scheduler {
 public:
  static scheduler& instance();

  // Binds to the environment's loop and the calling (main) thread.
  void init(uv_loop_t* loop, napi_env env);
  bool is_main_thread() const noexcept;
  napi_env env() const noexcept;
  bool is_stopped() const noexcept;

  class schedule_operation {
   public:
    explicit schedule_operation(scheduler& s) noexcept : scheduler_(s) {}
    bool await_ready() const noexcept { return false; }
    template <typename P>
    bool await_suspend(std::coroutine_handle<P> h) {
      return scheduler_.enqueue(resumable(h));
    }
    void await_resume() const noexcept {}

   private:
    scheduler& scheduler_;
  };

  // co_await scheduler.schedule() continues on the main thread (or, once the
  // scheduler is stopped, at once on the awaiting thread).
  schedule_operation schedule() noexcept { return schedule_operation(*this); }

  void add_ref();
  void release();
  void stop();

  std::uint32_t ref_count() const noexcept { return ref_count_.load(); }
  std::size_t queued() const;
  // Dispatch runs so far; for tests of wake-up coalescing.
  std::uint64_t dispatch_runs() const noexcept { return dispatch_runs_.load(); }

 private:
  scheduler() = default;
  // False when the task must go on at once on this thread (stopped).
  bool enqueue(resumable op);
  static void on_async(uv_async_t* handle);
  void dispatch(uv_async_t* handle);
  void spawn_delayed_wake(uv_async_t* handle);
  static void close_handle(uv_async_t* handle);

  uv_loop_t* loop_ = nullptr;
  std::atomic<std::thread::id> main_thread_{};
  uv_async_t* async_handle_ = nullptr;
  std::atomic<std::uint32_t> ref_count_{0};
  mutable std::mutex lock_;
  napi_env env_ = nullptr;
  napi_async_context async_context_ = nullptr;
  bool stopped_ = true;
  std::deque<resumable> queue_;
  std::atomic<bool> resend_pending_{false};
  std::atomic<std::uint64_t> dispatch_runs_{0};
};

// Converts string pairs into a script object, one property each, in key
// order. Main thread only; elsewhere throws std::runtime_error("not main thread").
napi_value to_script_object(napi_env env, const std::map<std::string, std::string>& values);

}  // namespace ostrel
