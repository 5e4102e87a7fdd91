#include "napi_lifecycle.h"

#include <uv.h>

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

void cleanup(void*) {
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
  runtime::create(pool_size);
  spawn(pump_io_service(), runtime::alive());
}

void install_cleanup_hook(napi_env env) { napi_check(env, napi_add_env_cleanup_hook(env, cleanup, nullptr)); }

}  // namespace ostrel::lifecycle
