#include "napi_util.h"

#include "log.h"
#include "scheduler.h"

namespace ostrel {

void napi_check(napi_env env, napi_status status) {
  if (status == napi_ok) return;
  NAPI_THROW_VOID(Napi::Error::New(env));
}

void raise_pending_exception(napi_env env) {
  bool pending = false;
  if (napi_is_exception_pending(env, &pending) != napi_ok || !pending) return;
  napi_value error;
  if (napi_get_and_clear_last_exception(env, &error) == napi_ok) napi_fatal_exception(env, error);
}

void check_arg_count(const Napi::CallbackInfo& info, std::size_t count) {
  if (info.Length() != count) throw Napi::Error::New(info.Env(), "Wrong number of arguments");
}

void check_arg_count_type_error(const Napi::CallbackInfo& info, std::size_t count) {
  if (info.Length() != count) throw Napi::TypeError::New(info.Env(), "Wrong number of arguments");
}

void check_arg_types(const Napi::CallbackInfo& info, std::initializer_list<napi_valuetype> types) {
  std::size_t i = 0;
  for (napi_valuetype expected : types) {
    if (i >= info.Length() || info[i].Type() != expected) throw Napi::Error::New(info.Env(), "Wrong arguments");
    ++i;
  }
}

promise::promise(napi_env env) : env_(env) {
  napi_check(env, napi_create_promise(env, &deferred_, &promise_));
}

promise::promise(promise&& other) noexcept
    : env_(other.env_), deferred_(std::exchange(other.deferred_, nullptr)), promise_(other.promise_) {}

promise::~promise() {
  // A deferred never settled leaves its promise pending forever; that is a
  // bug in the task, and saying so beats a silent hang in script.
  if (deferred_) log::err("Ostrel promise dropped without being settled");
}

void promise::resolve(napi_value result) {
  if (!deferred_) return;
  napi_check(env_, napi_resolve_deferred(env_, std::exchange(deferred_, nullptr), result));
}

void promise::reject(const std::string& message) {
  if (!deferred_) return;
  napi_value text, error;
  napi_check(env_, napi_create_string_utf8(env_, message.data(), message.size(), &text));
  napi_check(env_, napi_create_error(env_, nullptr, text, &error));
  napi_check(env_, napi_reject_deferred(env_, std::exchange(deferred_, nullptr), error));
}

namespace {
// Runs `deliver` on the main thread, with the module's error lines for a
// failure while delivering.
template <typename Fn>
void on_main_guarded(napi_env env, Fn&& deliver) {
  try {
    deliver();
  } catch (const Napi::Error& e) {
    log::err_value("Napi Error: ", e.Message());
    e.ThrowAsJavaScriptException();
    raise_pending_exception(env);
  } catch (const std::exception& e) {
    log::err_value("std::exception: ", e.what());
  } catch (...) {
    log::err("unknown error in libuv work");
  }
}
}  // namespace

task<void> deliver_error(std::shared_ptr<function_ref> callback, std::string message) {
  co_await scheduler::instance().schedule();
  napi_env env = scheduler::instance().env();
  if (!env || !scheduler::instance().is_main_thread()) co_return;
  on_main_guarded(env, [&] {
    Napi::Env e(env);
    callback->value().Call({Napi::Error::New(e, message).Value()});
  });
}

task<void> reject_on_main(std::shared_ptr<promise> p, std::string message) {
  co_await scheduler::instance().schedule();
  napi_env env = scheduler::instance().env();
  if (!env || !scheduler::instance().is_main_thread()) co_return;
  on_main_guarded(env, [&] { p->reject(message); });
}

}  // namespace ostrel
