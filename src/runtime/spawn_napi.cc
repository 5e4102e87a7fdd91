#include "spawn.h"

#include <napi.h>

#include <exception>
#include <string>

#include "blocking.h"
#include "environment.h"
#include "log.h"
#include "napi_util.h"
#include "scheduler.h"
#include "thread_id.h"

namespace ostrel {

namespace {

// The frame of a detached task: starts eagerly, frees itself at the end, and
// is the outermost link of the chain it runs.
struct detached {
  struct promise_type : promise_link {
    promise_type() { self = std::coroutine_handle<promise_type>::from_promise(*this); }
    detached get_return_object() noexcept { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() noexcept {}
    // The body catches everything; reaching here is a bug worth a crash.
    void unhandled_exception() noexcept { std::terminate(); }
  };
};

detached run_detached(task<void> t, std::shared_ptr<alive_token> token) {
  try {
    co_await t;
  } catch (...) {
    if (!token || token->is_running()) log_task_failure();
  }
}

detached run_tracked(task<void> t, std::shared_ptr<alive_token> token, std::shared_ptr<scheduler> s) {
  try {
    co_await on_pool();
    co_await t;
  } catch (...) {
    if (!token || token->is_running()) log_task_failure();
  }
  if (!token || !token->is_running()) co_return;  // the runtime is gone
  try {
    if (!s->is_main_thread()) co_await s->schedule();
    s->release();
  } catch (const scheduler_stopped&) {
    // The environment is going away; its references went with it.
  }
}

detached run_on_pool(task<void> t, std::shared_ptr<alive_token> token) {
  try {
    co_await on_pool();
    co_await t;
  } catch (...) {
    if (!token || token->is_running()) log_task_failure();
  }
}

}  // namespace

void log_task_failure() {
  try {
    throw;
  } catch (const scheduler_stopped&) {
    // Not a failure: the environment ended before the task could deliver.
  } catch (const environment_terminating&) {
    // Not a failure either: script can no longer be called.
  } catch (const Napi::Error& e) {
    std::string message = safe_message(e);
    log::out_value("Ostrel Spawn Napi::Error ", message);
    auto env = environment::current();
    if (!env) {
      log::err_value("Ostrel Spawn Napi::Error in thread #" + std::to_string(current_thread_id()), message);
    } else {
      rethrow_into_script(env->env(), e);
    }
  } catch (const std::exception& e) {
    log::out_value("Ostrel Spawn Exception ", e.what());
  } catch (...) {
    log::out("Ostrel Spawn Error...");
  }
}

void spawn(task<void> t, std::shared_ptr<alive_token> token) {
  run_detached(std::move(t), std::move(token));
}

void start_async(task<void> t) {
  auto token = runtime::alive();
  if (!runtime::pool()) {
    log::err("start_async: the runtime is not running");
    return;
  }
  if (auto env = environment::current()) {
    std::shared_ptr<scheduler> s = env->shared_scheduler();
    s->add_ref();
    run_tracked(std::move(t), std::move(token), std::move(s));
  } else {
    run_on_pool(std::move(t), std::move(token));
  }
}

}  // namespace ostrel
