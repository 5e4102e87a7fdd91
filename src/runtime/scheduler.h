// The main-thread scheduler of one script environment. A task awaits
// schedule() to continue on the environment's main thread: it is queued, the
// event loop is woken through one libuv async handle, and the handle's
// callback resumes queued tasks inside a handle scope and a callback scope,
// for at most 100 ms per run. The async handle exists while references are
// held (add_ref/release), which keeps the event loop, and so the process or
// the Worker, alive.
#pragma once

#include <node_api.h>
#include <uv.h>

#include <atomic>
#include <coroutine>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "coroutine_chain.h"

namespace ostrel {

// Thrown from `co_await scheduler.schedule()` when the scheduler has stopped
// (the environment is going away, or its last reference was released): the
// task is then on the thread that awaited, not on the main thread, and must
// not go on to touch script. Spawned tasks end quietly on it; a task that
// must act either way catches it.
class scheduler_stopped {
 public:
  const char* what() const noexcept { return "the environment's scheduler has stopped"; }
};

class scheduler : public std::enable_shared_from_this<scheduler> {
 public:
  // On the environment's main thread: binds to its loop and to that thread,
  // and creates the async context "Ostrel Scheduled Callbacks".
  static std::shared_ptr<scheduler> create(uv_loop_t* loop, napi_env env);
  ~scheduler();
  scheduler(const scheduler&) = delete;
  scheduler& operator=(const scheduler&) = delete;

  bool is_main_thread() const noexcept;
  napi_env env() const noexcept;
  // True while no reference is held (nothing pending) and after the
  // environment's clean-up: a stopped scheduler does not mean that the
  // environment has ended.
  bool is_stopped() const noexcept;
  // True on the main thread of an environment that has not been cleaned up
  // (stop() has not run): the only thread and time at which a script
  // reference may be deleted.
  bool is_live_main_thread() const noexcept;

  class schedule_operation {
   public:
    explicit schedule_operation(scheduler& s) noexcept : scheduler_(s) {}
    bool await_ready() const noexcept { return false; }
    template <typename P>
    bool await_suspend(std::coroutine_handle<P> h) {
      // TRICKY: once queued, the task may run (and end) on the main thread
      // before enqueue() returns here; nothing may touch `this` after a
      // successful enqueue.
      queued_ = true;
      if (scheduler_.enqueue(resumable(h))) return true;
      queued_ = false;
      return false;
    }
    // On the main thread; or throws scheduler_stopped on the awaiting thread.
    void await_resume() const {
      if (!queued_ || !scheduler_.is_main_thread()) throw scheduler_stopped();
    }

   private:
    scheduler& scheduler_;
    bool queued_ = false;
  };

  // co_await s.schedule() continues on the main thread. Once the scheduler
  // is stopped it writes "schedule_impl stop, destroy the waiting
  // operation" and throws scheduler_stopped at once on the awaiting thread,
  // so no code after the await can run off the main thread by mistake.
  schedule_operation schedule() noexcept { return schedule_operation(*this); }

  void add_ref();
  void release();
  // Final stop (environment clean-up): queued tasks are freed unrun and the
  // handle is closed; every later schedule goes on at once, stopped.
  void stop();

  std::uint32_t ref_count() const noexcept { return ref_count_.load(); }
  std::size_t queued() const;
  // Dispatch runs so far; for tests of wake-up coalescing.
  std::uint64_t dispatch_runs() const noexcept { return dispatch_runs_.load(); }

  // Main thread: calls `done` once no async handle of this scheduler is
  // still closing (at once when none is). The environment's teardown waits
  // for it: a close callback is code of this module, which node may unload
  // as soon as the environment is gone.
  void when_handles_closed(std::function<void()> done);

 private:
  // Handles being closed and who waits for the last one; shared with the
  // close callbacks, which may run after the scheduler is freed.
  struct close_gate {
    std::size_t closing = 0;
    std::function<void()> done;
  };
  scheduler() = default;
  // False when the task must go on at once on this thread (stopped).
  bool enqueue(resumable op);
  static void on_async(uv_async_t* handle);
  void dispatch(uv_async_t* handle);
  void spawn_delayed_wake(uv_async_t* handle);
  void close_handle(uv_async_t* handle);

  uv_loop_t* loop_ = nullptr;
  std::thread::id main_thread_{};
  uv_async_t* async_handle_ = nullptr;
  std::atomic<std::uint32_t> ref_count_{0};
  mutable std::mutex lock_;
  napi_env env_ = nullptr;
  napi_async_context async_context_ = nullptr;
  bool stopped_ = true;
  std::deque<resumable> queue_;
  std::atomic<bool> resend_pending_{false};
  std::atomic<std::uint64_t> dispatch_runs_{0};
  // Main thread only: dispatch runs on the stack, and a context that stop()
  // retired while one of them had it open.
  int dispatch_depth_ = 0;
  napi_async_context retired_context_ = nullptr;
  std::shared_ptr<close_gate> close_gate_ = std::make_shared<close_gate>();
};

// Converts string pairs into a script object, one property each, in key
// order. Only on the main thread of the calling environment; elsewhere
// throws std::runtime_error("not main thread").
napi_value to_script_object(napi_env env, const std::map<std::string, std::string>& values);

}  // namespace ostrel
