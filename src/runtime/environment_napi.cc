#include "environment.h"

#include <napi.h>
#include <uv.h>

#include <algorithm>

#include "log.h"
#include "napi_util.h"
#include "runtime.h"

namespace ostrel {

namespace {

std::mutex g_envs_mutex;
// Never destroyed: a worker may ask for the list while the process exits.
std::vector<std::shared_ptr<environment>>& live_environments() {
  static auto* list = new std::vector<std::shared_ptr<environment>>();
  return *list;
}

// Each environment has its own main thread, so the calling thread tells
// which environment it belongs to.
thread_local environment* t_current = nullptr;

}  // namespace

std::shared_ptr<environment> environment::start(napi_env env, std::size_t pool_size) {
  uv_loop_t* loop = nullptr;
  napi_check(env, napi_get_uv_event_loop(env, &loop));
  std::shared_ptr<environment> self(new environment());
  self->env_ = env;
  self->main_thread_ = std::this_thread::get_id();
  self->scheduler_ = scheduler::create(loop, env);

  runtime::acquire(pool_size);
  {
    std::lock_guard lock(g_envs_mutex);
    live_environments().push_back(self);
  }
  t_current = self.get();

  try {
    // TRICKY: node runs clean-up hooks last in, first out, so this one runs
    // after the clean-up below and keeps the environment (and so the module)
    // until the async handles that clean-up closed have run their close
    // callbacks, which are code of this module.
    auto* teardown = new std::shared_ptr<environment>(self);
    napi_async_cleanup_hook_handle ignored;
    if (napi_add_async_cleanup_hook(env, &environment::on_teardown_hook, teardown, &ignored) != napi_ok) {
      delete teardown;
      log::err("napi_add_async_cleanup_hook failed");
    }
    auto* box = new std::shared_ptr<environment>(self);
    napi_status status = napi_add_env_cleanup_hook(env, &environment::on_cleanup_hook, box);
    if (status != napi_ok) {
      delete box;
      napi_check(env, status);
    }
    // process.exit() (and an uncaught exception) end the process without
    // running environment clean-up hooks, but they do emit 'exit'. Cleaning
    // up there keeps worker threads from running into the process's own
    // teardown. In a Worker, 'exit' is the Worker's own.
    Napi::Env e(env);
    Napi::Object process = e.Global().Get("process").As<Napi::Object>();
    Napi::Function on = process.Get("on").As<Napi::Function>();
    std::weak_ptr<environment> weak = self;
    on.Call(process, {Napi::String::New(e, "exit"), Napi::Function::New(e, [weak](const Napi::CallbackInfo&) {
                        if (auto s = weak.lock()) s->cleanup();
                      })});
  } catch (...) {
    self->cleanup();
    throw;
  }
  return self;
}

std::shared_ptr<environment> environment::current() noexcept {
  environment* e = t_current;
  return e ? e->shared_from_this() : nullptr;
}

std::vector<std::shared_ptr<environment>> environment::all() {
  std::lock_guard lock(g_envs_mutex);
  return live_environments();
}

bool environment::cleaned_up() const noexcept {
  std::lock_guard lock(mutex_);
  return cleaned_up_;
}

void environment::on_cleanup_hook(void* arg) {
  auto* box = static_cast<std::shared_ptr<environment>*>(arg);
  std::shared_ptr<environment> self = std::move(*box);
  delete box;
  self->cleanup();
}

void environment::on_teardown_hook(napi_async_cleanup_hook_handle handle, void* arg) {
  auto* box = static_cast<std::shared_ptr<environment>*>(arg);
  std::shared_ptr<environment> self = std::move(*box);
  delete box;
  self->cleanup();  // done already, unless the hooks ran in another order
  self->scheduler_->when_handles_closed([handle] { napi_remove_async_cleanup_hook(handle); });
}

void environment::cleanup() noexcept {
  {
    std::lock_guard lock(mutex_);
    if (cleaned_up_) return;
    cleaned_up_ = true;
  }
  std::shared_ptr<environment> keep = shared_from_this();
  log::out("Ostrel Cleaning ...");
  // First every session of this environment stops and wakes its waits; no
  // worker is then left waiting for this thread.
  sessions_->stop_all();
  {
    std::lock_guard lock(g_envs_mutex);
    auto& list = live_environments();
    list.erase(std::remove(list.begin(), list.end(), keep), list.end());
  }
  // The last environment stops the service and joins the workers before its
  // scheduler stops, so that no worker schedules onto it meanwhile; others
  // leave the shared threads running.
  runtime::release(join_grace, [this] { scheduler_->stop(); });
  scheduler_->stop();  // idempotent; for an environment that was not the last
  // Subsystem state (script references) goes while the environment can
  // still release it.
  std::map<const void*, std::shared_ptr<void>> data;
  data.swap(data_);
  data.clear();
  if (t_current == this) t_current = nullptr;
}

}  // namespace ostrel
