#include "scheduler.h"

#include <stdexcept>
#include <utility>

#include "clock.h"
#include "environment.h"
#include "log.h"
#include "napi_util.h"
#include "runtime.h"
#include "spawn.h"
#include "task.h"

namespace ostrel {

namespace {
constexpr std::int64_t dispatch_budget_ns = 100'000'000;
constexpr auto rewake_delay = std::chrono::milliseconds(100);

void check_scope(napi_status status, const char* cls, const char* fn) {
  if (status != napi_ok) napi_fatal_error(cls, NAPI_AUTO_LENGTH, fn, NAPI_AUTO_LENGTH);
}
}  // namespace

std::shared_ptr<scheduler> scheduler::create(uv_loop_t* loop, napi_env env) {
  std::shared_ptr<scheduler> s(new scheduler());
  s->loop_ = loop;
  s->env_ = env;
  s->main_thread_ = std::this_thread::get_id();
  napi_value resource, name;
  napi_check(env, napi_create_object(env, &resource));
  napi_check(env, napi_create_string_utf8(env, "Ostrel Scheduled Callbacks", NAPI_AUTO_LENGTH, &name));
  napi_check(env, napi_async_init(env, resource, name, &s->async_context_));
  return s;
}

// Tasks hold the scheduler by shared ownership, so the last owner may be a
// worker after stop(); by then the context and the handle are gone.
scheduler::~scheduler() = default;

bool scheduler::is_main_thread() const noexcept {
  return main_thread_ == std::this_thread::get_id();
}

napi_env scheduler::env() const noexcept {
  std::lock_guard lock(lock_);
  return env_;
}

bool scheduler::is_stopped() const noexcept {
  std::lock_guard lock(lock_);
  return stopped_;
}

bool scheduler::is_live_main_thread() const noexcept {
  // stop() clears env_, so a later thread that happens to get the ended
  // main thread's id is not taken for it.
  return is_main_thread() && env() != nullptr;
}

std::size_t scheduler::queued() const {
  std::lock_guard lock(lock_);
  return queue_.size();
}

bool scheduler::enqueue(resumable op) {
  {
    std::lock_guard lock(lock_);
    if (!stopped_) {
      queue_.push_back(op);
      // TRICKY: send while holding the lock. The main thread closes (and
      // later frees) the handle only under this lock, so a send made here
      // cannot reach a handle that release() or stop() has already handed
      // to uv_close. uv_async_send does not block.
      if (async_handle_ && !resend_pending_.load(std::memory_order_acquire)) uv_async_send(async_handle_);
      return true;
    }
  }
  // The task goes on at once on this thread, where it may not touch script.
  log::out("schedule_impl stop, destroy the waiting operation");
  return false;
}

void scheduler::on_async(uv_async_t* handle) {
  static_cast<scheduler*>(handle->data)->dispatch(handle);
}

void scheduler::close_handle(uv_async_t* handle) {
  ++close_gate_->closing;
  handle->data = new std::shared_ptr<close_gate>(close_gate_);
  uv_close(reinterpret_cast<uv_handle_t*>(handle), [](uv_handle_t* h) {
    auto* gate = static_cast<std::shared_ptr<close_gate>*>(h->data);
    delete reinterpret_cast<uv_async_t*>(h);
    std::shared_ptr<close_gate> g = std::move(*gate);
    delete gate;
    if (--g->closing == 0 && g->done) std::exchange(g->done, nullptr)();
  });
}

void scheduler::when_handles_closed(std::function<void()> done) {
  if (close_gate_->closing == 0) {
    done();
    return;
  }
  close_gate_->done = std::move(done);
}

void scheduler::dispatch(uv_async_t* h) {
  // A resumed task may end the environment (process.exit() in a callback
  // runs the clean-up right there); keep this object alive until the end.
  std::shared_ptr<scheduler> self = shared_from_this();
  dispatch_runs_.fetch_add(1, std::memory_order_relaxed);
  const std::int64_t start = monotonic_ns();
  napi_env env;
  napi_async_context context;
  {
    std::lock_guard lock(lock_);
    env = env_;
    context = async_context_;
  }
  if (!env) return;
  ++dispatch_depth_;

  napi_handle_scope handle_scope;
  check_scope(napi_open_handle_scope(env, &handle_scope), "HandleScope::HandleScope", "napi_open_handle_scope");
  napi_value resource;
  napi_create_object(env, &resource);
  napi_callback_scope callback_scope;
  check_scope(napi_open_callback_scope(env, resource, context, &callback_scope), "CallbackScope::CallbackScope",
              "napi_open_callback_scope");

  std::unique_lock lock(lock_);
  bool budget_spent = false;
  for (;;) {
    if (stopped_ || queue_.empty() || async_handle_ != h) break;
    resumable op = queue_.front();
    queue_.pop_front();
    lock.unlock();
    op.resume();
    raise_pending_exception(env);
    if (monotonic_ns() - start > dispatch_budget_ns) {  // lock stays released
      budget_spent = true;
      break;
    }
    lock.lock();
  }
  if (lock.owns_lock()) lock.unlock();

  check_scope(napi_close_callback_scope(env, callback_scope), "CallbackScope::~CallbackScope",
              "napi_close_callback_scope");
  check_scope(napi_close_handle_scope(env, handle_scope), "HandleScope::~HandleScope", "napi_close_handle_scope");
  if (--dispatch_depth_ == 0 && retired_context_) {
    // stop() ran inside this run (the environment ended from a callback);
    // the context outlived the callback scope opened with it.
    napi_async_destroy(env, std::exchange(retired_context_, nullptr));
  }

  bool is_active = uv_is_active(reinterpret_cast<uv_handle_t*>(h)) != 0;
  std::size_t remaining;
  {
    std::lock_guard relock(lock_);
    if (stopped_) {
      if (is_active && async_handle_ == h) {
        async_handle_ = nullptr;
        close_handle(h);
      }
      return;
    }
    remaining = queue_.size();
  }
  // Work queued after the loop (by the microtasks that run as the callback
  // scope closes, or by a worker meanwhile) has sent its own wake-up; only a
  // run that spent its budget waits before the rest of the queue runs.
  if (is_active && remaining > 0 && budget_spent) {
    // Yield to the event loop for a while before the rest of the queue runs.
    resend_pending_.store(true, std::memory_order_release);
    spawn_delayed_wake(h);
  }
}

void scheduler::spawn_delayed_wake(uv_async_t* captured) {
  auto token = runtime::alive();
  spawn(
      [](std::shared_ptr<scheduler> self, uv_async_t* h) -> task<void> {
        auto io = runtime::io();
        if (!io) throw std::runtime_error("io_service is not running");
        co_await io->schedule_after(rewake_delay);
        self->resend_pending_.store(false, std::memory_order_release);
        bool sent = false;
        {
          // Under the lock for the same reason as in enqueue().
          std::lock_guard lock(self->lock_);
          if (!self->stopped_ && self->async_handle_ == h) {
            uv_async_send(h);
            sent = true;
          }
        }
        if (!sent) log::err("UV Scheduler unexpected stop");
      }(shared_from_this(), captured),
      token);
}

void scheduler::add_ref() {
  std::lock_guard lock(lock_);
  if (!is_main_thread()) {
    log::err("Call AddRef in non-main thread");
    // A first reference cannot be taken off the main thread: it would have
    // to create the async handle here.
    if (ref_count_.fetch_add(1) + 1 == 1) ref_count_.fetch_sub(1);
    return;
  }
  if (ref_count_.fetch_add(1) + 1 != 1) return;
  if (async_handle_ && uv_is_active(reinterpret_cast<uv_handle_t*>(async_handle_))) close_handle(async_handle_);
  auto* handle = new uv_async_t{};
  handle->data = this;
  uv_async_init(loop_, handle, &scheduler::on_async);
  async_handle_ = handle;
  stopped_ = false;
  resend_pending_.store(false);
}

void scheduler::release() {
  std::lock_guard lock(lock_);
  if (!is_main_thread()) {
    log::err("Call Release in non-main thread");
    if (ref_count_.load() == 0) return;
    if (ref_count_.fetch_sub(1) == 1) stopped_ = true;
    return;
  }
  if (ref_count_.load() == 0) return;  // unbalanced release: nothing to drop
  if (ref_count_.fetch_sub(1) != 1) return;
  stopped_ = true;
  if (async_handle_) {
    // Queued tasks are dropped, neither resumed nor freed: their owners (a
    // session's state, a promise) may still be reachable from script.
    queue_.clear();
    close_handle(async_handle_);
  }
  async_handle_ = nullptr;
}

void scheduler::stop() {
  std::deque<resumable> abandoned;
  {
    std::lock_guard lock(lock_);
    stopped_ = true;
    ref_count_.store(0);
    if (async_context_ && env_) {
      if (dispatch_depth_ > 0) {
        retired_context_ = async_context_;  // still in use by the open callback scope
      } else {
        napi_async_destroy(env_, async_context_);
      }
    }
    async_context_ = nullptr;
    env_ = nullptr;
    abandoned.swap(queue_);
    if (async_handle_ && uv_is_active(reinterpret_cast<uv_handle_t*>(async_handle_))) {
      close_handle(async_handle_);
    }
    async_handle_ = nullptr;
  }
  for (auto& op : abandoned) op.destroy();
}

napi_value to_script_object(napi_env env, const std::map<std::string, std::string>& values) {
  if (!environment::current()) throw std::runtime_error("not main thread");
  napi_value object;
  napi_check(env, napi_create_object(env, &object));
  for (const auto& [key, value] : values) {
    napi_value v;
    napi_check(env, napi_create_string_utf8(env, value.data(), value.size(), &v));
    napi_check(env, napi_set_named_property(env, object, key.c_str(), v));
  }
  return object;
}

}  // namespace ostrel
