#include "napi_util.h"

#include "environment.h"
#include "log.h"
#include "scheduler.h"

namespace ostrel {

namespace {

bool is_object(napi_env env, napi_value v) {
  napi_valuetype type;
  return v && napi_typeof(env, v, &type) == napi_ok && (type == napi_object || type == napi_function);
}

// Takes the pending exception; null when none is pending.
napi_value take_pending(napi_env env) {
  bool pending = false;
  if (napi_is_exception_pending(env, &pending) != napi_ok || !pending) return nullptr;
  napi_value error = nullptr;
  if (napi_get_and_clear_last_exception(env, &error) != napi_ok) return nullptr;
  return error;
}

// A description of a thrown value that is not an Error, without running
// script (its toString could throw or never return).
std::string describe_thrown(napi_env env, napi_value v) {
  napi_valuetype type;
  if (!v || napi_typeof(env, v, &type) != napi_ok) return "a value that is not an Error";
  switch (type) {
    case napi_string: {
      std::size_t n = 0;
      if (napi_get_value_string_utf8(env, v, nullptr, 0, &n) != napi_ok) break;
      std::string text(n, '\0');
      napi_get_value_string_utf8(env, v, text.data(), n + 1, &n);
      return text;
    }
    case napi_number: {
      double d = 0;
      napi_get_value_double(env, v, &d);
      return std::to_string(d);
    }
    case napi_boolean: {
      bool b = false;
      napi_get_value_bool(env, v, &b);
      return b ? "true" : "false";
    }
    case napi_undefined:
      return "undefined";
    case napi_null:
      return "null";
    default:
      break;
  }
  return "a value that is not an Error";
}

}  // namespace

void napi_check(napi_env env, napi_status status) {
  if (status == napi_ok) return;
  // Read before any other call replaces it.
  const napi_extended_error_info* info = nullptr;
  std::string message = "Error in native callback";
  if (napi_get_last_error_info(env, &info) == napi_ok && info && info->error_message) message = info->error_message;
  napi_value pending = take_pending(env);
  if (is_object(env, pending)) throw Napi::Error(env, pending);
  // A pending exception status with nothing pending (or a pending value
  // that is not an object, as the termination leaves) means script cannot
  // run here any more.
  if (status == napi_pending_exception || pending) throw environment_terminating();
  napi_value text = nullptr, error = nullptr;
  if (napi_create_string_utf8(env, message.data(), message.size(), &text) != napi_ok ||
      napi_create_error(env, nullptr, text, &error) != napi_ok) {
    throw environment_terminating();
  }
  throw Napi::Error(env, error);
}

std::string safe_message(const Napi::Error& e) noexcept {
  try {
    return e.Message();
  } catch (...) {
    return "(the error's message could not be read)";
  }
}

void rethrow_into_script(napi_env env, const Napi::Error& e) noexcept {
  napi_value value = e.Value();
  if (!is_object(env, value)) return;
  napi_throw(env, value);
}

void raise_pending_exception(napi_env env) {
  napi_value error = take_pending(env);
  // The termination of a Worker leaves a value that is not an object; there
  // is nobody left to tell.
  if (!error) return;
  if (!is_object(env, error)) {
    napi_valuetype type;
    if (napi_typeof(env, error, &type) != napi_ok || type == napi_null || type == napi_undefined) return;
  }
  napi_fatal_exception(env, error);
}

script_call_result call_script(napi_env env, napi_value fn, napi_value receiver, std::size_t argc,
                               const napi_value* argv) noexcept {
  script_call_result r;
  if (!receiver && napi_get_undefined(env, &receiver) != napi_ok) {
    r.terminating = true;
    return r;
  }
  napi_value ignored;
  napi_status status = napi_call_function(env, receiver, fn, argc, argv, &ignored);
  if (status == napi_ok) {
    r.ok = true;
    return r;
  }
  napi_value thrown = take_pending(env);
  if (!thrown) {
    // Nothing was thrown, yet the call failed: the environment cannot run
    // script (it is being terminated).
    r.terminating = true;
    return r;
  }
  if (is_object(env, thrown)) {
    r.thrown = safe_message(Napi::Error(env, thrown));
    return r;
  }
  napi_valuetype type;
  if (napi_typeof(env, thrown, &type) != napi_ok || type == napi_null || type == napi_undefined) {
    // What the termination leaves pending; a callback that really threw
    // null is taken for it, which only ends the deliveries early.
    r.terminating = true;
    return r;
  }
  r.thrown = describe_thrown(env, thrown);
  return r;
}

std::shared_ptr<scheduler> current_scheduler() {
  auto env = environment::current();
  if (!env) throw std::logic_error("a script-facing task must be created on a main thread");
  return env->shared_scheduler();
}

std::string path_argument(const Napi::Value& value, const char* what) {
  std::string text = value.As<Napi::String>().Utf8Value();
  if (text.find('\0') != std::string::npos) {
    throw Napi::Error::New(value.Env(), std::string(what) + ": the path must not contain a NUL character");
  }
  return text;
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

script_ref::script_ref(napi_env env, napi_value value) : env_(env), sched_(current_scheduler()) {
  napi_check(env, napi_create_reference(env, value, 1, &ref_));
}

script_ref::script_ref(script_ref&& other) noexcept
    : env_(other.env_), ref_(std::exchange(other.ref_, nullptr)), sched_(std::move(other.sched_)) {}

script_ref& script_ref::operator=(script_ref&& other) noexcept {
  if (this != &other) {
    reset();
    env_ = other.env_;
    ref_ = std::exchange(other.ref_, nullptr);
    sched_ = std::move(other.sched_);
  }
  return *this;
}

napi_value script_ref::value() const {
  napi_value v = nullptr;
  napi_check(env_, napi_get_reference_value(env_, ref_, &v));
  return v;
}

void script_ref::reset() noexcept {
  napi_ref r = std::exchange(ref_, nullptr);
  std::shared_ptr<scheduler> s = std::move(sched_);
  // TRICKY: only the environment's own main thread, before its clean-up,
  // may delete: elsewhere (or later) the environment may be running script
  // or may be freed already. The environment frees what is left here.
  if (r && s && s->is_live_main_thread()) napi_delete_reference(env_, r);
}

promise::promise(napi_env env) : env_(env), owner_(environment::current()) {
  napi_check(env, napi_create_promise(env, &deferred_, &promise_));
}

promise::promise(promise&& other) noexcept
    : env_(other.env_),
      deferred_(std::exchange(other.deferred_, nullptr)),
      promise_(other.promise_),
      owner_(std::move(other.owner_)) {}

promise::~promise() {
  // A deferred never settled leaves its promise pending forever; that is a
  // bug in the task, and saying so beats a silent hang in script. Calls
  // still in flight when their environment ends are dropped on purpose.
  if (!deferred_) return;
  std::shared_ptr<environment> owner = owner_.lock();
  if (owner && !owner->cleaned_up()) log::err("Ostrel promise dropped without being settled");
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
  } catch (const environment_terminating&) {
    // Nobody is left to deliver to.
  } catch (const Napi::Error& e) {
    log::err_value("Napi Error: ", safe_message(e));
    rethrow_into_script(env, e);
    raise_pending_exception(env);
  } catch (const std::exception& e) {
    log::err_value("std::exception: ", e.what());
  } catch (...) {
    log::err("unknown error in libuv work");
  }
}

task<void> reject_on_main_on(std::shared_ptr<scheduler> s, std::shared_ptr<promise> p, std::string message) {
  co_await s->schedule();
  on_main_guarded(s->env(), [&] { p->reject(message); });
}
}  // namespace

task<void> reject_on_main(std::shared_ptr<promise> p, std::string message) {
  return reject_on_main_on(current_scheduler(), std::move(p), std::move(message));
}

}  // namespace ostrel
