// Conventions at the boundary to script, shared by every export: argument
// checks with the module's messages, promises settled on the main thread,
// native failures turned into script errors, and failures delivered to a
// script callback.
#pragma once

#include <napi.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "task.h"

namespace ostrel {

// Throws Napi::Error from the environment's pending exception (or from the
// last error information) when `status` is not napi_ok.
void napi_check(napi_env env, napi_status status);

// After script ran outside a script call (a resumed task on the main
// thread): an exception left pending is raised as an uncaught exception, so
// that it reaches process 'uncaughtException' instead of poisoning the next
// Node-API call.
void raise_pending_exception(napi_env env);

// "Wrong number of arguments" (a plain Error) unless exactly `count` were given.
void check_arg_count(const Napi::CallbackInfo& info, std::size_t count);
// The same check raising a TypeError, as the telemetry registrations do.
void check_arg_count_type_error(const Napi::CallbackInfo& info, std::size_t count);
// "Wrong arguments" unless each argument has the listed type, in order.
void check_arg_types(const Napi::CallbackInfo& info, std::initializer_list<napi_valuetype> types);

// Creates a native function without a name of its own and attaches it to
// `exports` under `name`. Native exceptions never cross into script: a
// std::exception becomes an Error with its message, anything else an Error
// "unknown native error".
template <typename Fn>
void attach_export(Napi::Env env, Napi::Object exports, const char* name, Fn fn) {
  auto guarded = [fn = std::move(fn)](const Napi::CallbackInfo& info) -> Napi::Value {
    try {
      return fn(info);
    } catch (const Napi::Error&) {
      throw;
    } catch (const std::exception& e) {
      throw Napi::Error::New(info.Env(), e.what());
    } catch (...) {
      throw Napi::Error::New(info.Env(), "unknown native error");
    }
  };
  exports.Set(name, Napi::Function::New(env, std::move(guarded)));
}

// A promise whose settling happens on the main thread, exactly once. Create
// it in the export, move it into the task, settle it after awaiting the
// scheduler.
class promise {
 public:
  explicit promise(napi_env env);
  promise(promise&&) noexcept;
  promise& operator=(promise&&) = delete;
  ~promise();

  Napi::Promise value() const { return Napi::Promise(env_, promise_); }
  void resolve(napi_value result);
  // Rejects with an Error whose message is `message` (no code).
  void reject(const std::string& message);
  bool settled() const noexcept { return deferred_ == nullptr; }

 private:
  napi_env env_;
  napi_deferred deferred_ = nullptr;
  napi_value promise_ = nullptr;
};

// A script function kept alive across threads; released on the main thread.
class function_ref {
 public:
  explicit function_ref(Napi::Function fn) : ref_(Napi::Persistent(fn)) {}
  Napi::Function value() const { return ref_.Value(); }

 private:
  Napi::FunctionReference ref_;
};

// A task that hops to the main thread and passes an Error with `message`
// to `callback`, logging a failure to do so as the module's error lines say.
task<void> deliver_error(std::shared_ptr<function_ref> callback, std::string message);
// A task that hops to the main thread and rejects `p` with `message`.
task<void> reject_on_main(std::shared_ptr<promise> p, std::string message);

}  // namespace ostrel
