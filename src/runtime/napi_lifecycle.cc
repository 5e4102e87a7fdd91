#include "napi_lifecycle.h"

#include <napi.h>
#include <uv.h>

#include <atomic>

#include "log.h"
#include "napi_util.h"
#include "runtime.h"
#include "scheduler.h"
#include "spawn.h"

namespace ostrel::lifecycle {

namespace {

// Runs the I/O service's loop on a pool worker for the module's lifetime.
task<void> pump_io_service() {
  co_await runtime::pool()->schedule();
  try {
    runtime::io()->process_events();
  } catch (...) {
    // The service is no longer pumped; the task ends without a word.
  }
}

// Set when the runtime starts, cleared by the first clean-up: the hook and
// the process 'exit' listener both lead here, and only one may act.
std::atomic<bool> running{false};

void cleanup(void*) {
  if (!running.exchange(false)) return;
  log::out("Ostrel Cleaning ...");
  runtime::stop_threads();
  scheduler::instance().stop();
  runtime::destroy();
}

}  // namespace

void bind_scheduler(napi_env env) {
  uv_loop_t* loop = nullptr;
  napi_check(env, napi_get_uv_event_loop(env, &loop));
  scheduler::instance().init(loop, env);
}

void start_runtime(std::size_t pool_size) {
  running = true;
  runtime::create(pool_size);
  spawn(pump_io_service(), runtime::alive());
}

void install_cleanup_hook(napi_env env) {
  napi_check(env, napi_add_env_cleanup_hook(env, cleanup, nullptr));
  // process.exit() ends the process without tearing the environment down,
  // so the hook above never runs there; the 'exit' event does, on every
  // exit path. Cleaning up at that point keeps worker threads from running
  // into the process's own teardown.
  Napi::Env e(env);
  Napi::Object process = e.Global().Get("process").As<Napi::Object>();
  Napi::Function on = process.Get("on").As<Napi::Function>();
  on.Call(process,
          {Napi::String::New(e, "exit"), Napi::Function::New(e, [](const Napi::CallbackInfo&) { cleanup(nullptr); })});
}

}  // namespace ostrel::lifecycle
