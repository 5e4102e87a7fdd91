// Probes of task start-up and failure: spawn's log lines for each kind of
// failure on and off the main thread, a script error thrown inside a
// dispatch, promise rejection and error delivery.
#include <memory>
#include <stdexcept>
#include <thread>

#include "probe.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/scheduler.h"
#include "runtime/spawn.h"

namespace ostrel::probe {
namespace {

struct not_an_exception {};

// Throws the failure of `kind` from a spawned task, on the main thread or on
// a plain thread. Off the main thread the Node-API error is an empty one:
// any other would make Node-API calls on that thread (node-addon-api's move
// constructor drops the cached message).
Napi::Value spawn_failure(const Napi::CallbackInfo& info) {
  check_arg_types(info, {napi_string, napi_boolean});
  const std::string kind = info[0].As<Napi::String>();
  const bool on_main = info[1].As<Napi::Boolean>();
  std::shared_ptr<Napi::Error> napi_error;
  if (kind == "napi") {
    napi_error = on_main ? std::make_shared<Napi::Error>(Napi::Error::New(info.Env(), "probe napi failure"))
                         : std::make_shared<Napi::Error>();
  }
  auto failing = [](std::string kind, std::shared_ptr<Napi::Error> napi_error) -> task<void> {
    if (kind == "napi") throw std::move(*napi_error);
    if (kind == "std") throw std::runtime_error("probe std failure");
    throw not_an_exception{};
    co_return;
  };
  if (on_main) {
    spawn(failing(kind, napi_error), runtime::alive());
  } else {
    std::thread t([&] { spawn(failing(kind, napi_error), runtime::alive()); });
    t.join();
  }
  return info.Env().Undefined();
}

// A task that hops to the main thread and throws a Node-API error there,
// inside the scheduler's dispatch: it must reach 'uncaughtException'.
Napi::Value throw_on_dispatch(const Napi::CallbackInfo& info) {
  check_arg_types(info, {napi_string});
  start_async([](std::string message) -> task<void> {
    co_await sched().schedule();
    throw Napi::Error::New(sched().env(), message);
  }(info[0].As<Napi::String>()));
  return info.Env().Undefined();
}

Napi::Value reject_with(const Napi::CallbackInfo& info) {
  check_arg_count(info, 1);
  check_arg_types(info, {napi_string});
  auto p = std::make_shared<promise>(info.Env());
  Napi::Value result = p->value();
  start_async(reject_on_main(p, info[0].As<Napi::String>()));
  return result;
}

void register_task_probes(Napi::Env env, Napi::Object exports) {
  exports.Set("spawnFailure", Napi::Function::New(env, spawn_failure));
  exports.Set("throwOnDispatch", Napi::Function::New(env, throw_on_dispatch));
  exports.Set("rejectWith", Napi::Function::New(env, reject_with));
}

probe_part part(register_task_probes);

}  // namespace
}  // namespace ostrel::probe
