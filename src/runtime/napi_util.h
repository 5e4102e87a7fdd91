// Conventions at the boundary to script, shared by every export: argument
// checks with the module's messages, promises settled on the main thread,
// native failures turned into script errors, and failures delivered to a
// script callback.
#pragma once

#include <napi.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "scheduler.h"
#include "task.h"

namespace ostrel {

// Thrown when script can no longer be called: the environment is being
// terminated (worker.terminate(), process.exit() inside a Worker) and every
// call into it fails. Deliveries end quietly on it; the spawn wrapper does
// not log it.
class environment_terminating : public std::exception {
 public:
  const char* what() const noexcept override { return "the script environment is terminating"; }
};

// When `status` is not napi_ok: throws Napi::Error carrying the pending
// exception when that is an object, a Napi::Error made from the last error
// information when nothing is pending, and environment_terminating when the
// environment cannot run script any more. Never wraps a value that is not
// an object (wrapping needs script, which a terminating environment cannot
// run).
void napi_check(napi_env env, napi_status status);

// The message of a script error, or a placeholder when reading it fails.
std::string safe_message(const Napi::Error& e) noexcept;
// Raises `e` into script as a pending exception, unless the environment is
// terminating.
void rethrow_into_script(napi_env env, const Napi::Error& e) noexcept;

// After script ran outside a script call (a resumed task on the main
// thread): an exception left pending is raised as an uncaught exception, so
// that it reaches process 'uncaughtException' instead of poisoning the next
// Node-API call. Nothing is raised into an environment that is terminating.
void raise_pending_exception(napi_env env);

// Calls a script function from native code on the main thread. A callback
// that throws is not a failure of the caller: the exception is taken and its
// message returned in `thrown` (a value that is not an Error is described).
// `terminating` means script can no longer run in this environment: stop
// delivering to it.
struct script_call_result {
  bool ok = false;
  bool terminating = false;
  std::string thrown;
};
script_call_result call_script(napi_env env, napi_value fn, napi_value receiver, std::size_t argc,
                               const napi_value* argv) noexcept;

// The scheduler of the calling main thread's environment; throws
// std::logic_error elsewhere (a task must be created on a main thread).
std::shared_ptr<scheduler> current_scheduler();

// "Wrong number of arguments" (a plain Error) unless exactly `count` were given.
void check_arg_count(const Napi::CallbackInfo& info, std::size_t count);
// The same check raising a TypeError, as the telemetry registrations do.
void check_arg_count_type_error(const Napi::CallbackInfo& info, std::size_t count);
// "Wrong arguments" unless each argument has the listed type, in order.
void check_arg_types(const Napi::CallbackInfo& info, std::initializer_list<napi_valuetype> types);

// The UTF-8 text of a path argument already checked to be a string. A NUL
// character would silently cut the path short at the system call (a scan
// of "/x/small\0/evil" would walk "/x/small"): it throws
// Error("<what>: the path must not contain a NUL character") instead, as
// Node's own fs refuses such strings. Every export that takes a path reads
// it through here.
std::string path_argument(const Napi::Value& value, const char* what);

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
class environment;

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
  // The environment went away before the result was ready: the promise can
  // never settle, and that is not a failure of the task (no log line).
  void abandon() noexcept { deferred_ = nullptr; }

 private:
  napi_env env_;
  napi_deferred deferred_ = nullptr;
  napi_value promise_ = nullptr;
  std::weak_ptr<environment> owner_;  // to keep quiet about promises its clean-up drops
};

// A strong reference to a script value, owned by one object that threads
// may share. It is deleted only on its environment's main thread before
// that environment's clean-up. When the last owner lets go anywhere else (a
// pool worker ending a task after the environment was cleaned up, or even
// freed), the reference is left to the environment, whose end releases
// what it held (node keeps only the reference's small record): a Node-API
// call there would write into an environment that another thread is using
// or that no longer exists.
class script_ref {
 public:
  script_ref() = default;
  // Main thread of the calling environment; throws elsewhere.
  script_ref(napi_env env, napi_value value);
  script_ref(script_ref&& other) noexcept;
  script_ref& operator=(script_ref&& other) noexcept;
  ~script_ref() { reset(); }

  explicit operator bool() const noexcept { return ref_ != nullptr; }
  napi_env env() const noexcept { return env_; }
  // Main thread only.
  napi_value value() const;
  // Deletes the reference where that is safe, forgets it elsewhere.
  void reset() noexcept;

 private:
  napi_env env_ = nullptr;
  napi_ref ref_ = nullptr;
  std::shared_ptr<scheduler> sched_;
};

// A task that hops to the main thread and rejects `p` with `message`.
// Create it on the main thread of the environment it delivers to.
task<void> reject_on_main(std::shared_ptr<promise> p, std::string message);

}  // namespace ostrel
