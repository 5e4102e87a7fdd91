// The portable-device exports: GetMtpDevices, GetMtpFilesById,
// GetMtpFileById and GetMtpThumbnailById. Each checks its arguments on the
// main thread, runs its operation on a thread of its own (mtp_ops.h) and
// settles its promise on the main thread. Listings and copies report
// progress at most every 200 ms and can be cancelled through an AbortSignal
// or by the environment's clean-up.
#include <napi.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <type_traits>
#include <string>
#include <vector>

#include "main/export_steps.h"
#include "mtp_ops.h"
#include "runtime/blocking.h"
#include "runtime/environment.h"
#include "runtime/log.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/scheduler.h"
#include "runtime/spawn.h"
#include "runtime/strings.h"

namespace ostrel {

namespace mtp {
namespace {

constexpr std::chrono::milliseconds progress_interval{200};

napi_value make_string(napi_env env, const std::wstring& text) {
  napi_value v;
#ifdef _WIN32
  napi_check(env, napi_create_string_utf16(env, reinterpret_cast<const char16_t*>(text.data()), text.size(), &v));
#else
  std::string utf8 = to_utf8(std::wstring_view(text));
  napi_check(env, napi_create_string_utf8(env, utf8.data(), utf8.size(), &v));
#endif
  return v;
}

napi_value make_number(napi_env env, double value) {
  napi_value v;
  napi_check(env, napi_create_double(env, value, &v));
  return v;
}

// ---- arguments

[[noreturn]] void wrong_arguments(Napi::Env env) {
  throw Napi::Error::New(env, "Wrong arguments");
}

// A non-empty string without NUL characters.
std::wstring id_argument(const Napi::Value& value, const char* what) {
  if (!value.IsString()) wrong_arguments(value.Env());
  std::string text = path_argument(value, what);
  if (text.empty()) wrong_arguments(value.Env());
  return to_wide(text);
}

bool is_absent(const Napi::Value& value) {
  return value.IsUndefined() || value.IsNull();
}

// What the options object of a listing or a copy may hold.
struct call_options {
  std::optional<bool> flag;  // "recursive" or "overwrite"
  std::optional<Napi::Function> progress;
  std::optional<Napi::Object> signal;
};

call_options read_options(const Napi::Value& value, const char* flag_name, bool progress_allowed) {
  call_options o;
  if (value.IsUndefined()) return o;
  if (!value.IsObject() || value.IsArray() || value.IsFunction()) wrong_arguments(value.Env());
  Napi::Object options = value.As<Napi::Object>();
  Napi::Value flag = options.Get(flag_name);
  if (!flag.IsUndefined()) {
    if (!flag.IsBoolean()) wrong_arguments(value.Env());
    o.flag = flag.As<Napi::Boolean>().Value();
  }
  Napi::Value progress = options.Get("onProgress");
  if (!progress.IsUndefined()) {
    if (!progress_allowed || !progress.IsFunction()) wrong_arguments(value.Env());
    o.progress = progress.As<Napi::Function>();
  }
  Napi::Value signal = options.Get("signal");
  if (!signal.IsUndefined()) {
    if (!signal.IsObject() || !signal.As<Napi::Object>().Get("addEventListener").IsFunction()) {
      wrong_arguments(value.Env());
    }
    o.signal = signal.As<Napi::Object>();
  }
  return o;
}

// ---- one listing or copy in flight

// The script side of a running operation: its promise, its progress
// callback and its registration with the environment. Script references are
// made and dropped on the main thread only.
class call_state {
 public:
  call_state(std::shared_ptr<environment> owner, napi_env env)
      : env_(env),
        sched_(owner->shared_scheduler()),
        sessions_(owner->sessions()),
        control_(std::make_shared<operation_control>()) {}
  // An export that fails after holding its callbacks (a signal whose
  // addEventListener throws) ends here with no reference on the scheduler,
  // which is then stopped although the environment lives: release unless the
  // environment has been cleaned up or this is another thread.
  ~call_state() {
    if (sched_->is_live_main_thread()) release_script();
  }

  scheduler& sched() { return *sched_; }
  const std::shared_ptr<operation_control>& control() { return control_; }
  bool finished() const { return finished_.load(); }
  void finish() { finished_ = true; }
  bool settled() const { return settled_; }

  // Main thread, at the start.
  void hold_progress(Napi::Function fn) { napi_check(env_, napi_create_reference(env_, fn, 1, &progress_)); }
  bool has_progress() const { return progress_ != nullptr; }
  void register_session() {
    std::weak_ptr<operation_control> weak = control_;
    ticket_ = session_registry::add(sessions_, [weak] {
      if (auto c = weak.lock()) c->cancel = true;
    });
  }
  // An abort event cancels the operation; an aborted signal cancels it now.
  // The listener is removed when the operation settles, so that one signal
  // can serve any number of calls.
  void watch_signal(Napi::Object signal) {
    Napi::Env env(env_);
    if (signal.Get("aborted").ToBoolean().Value()) control_->cancel = true;
    std::weak_ptr<operation_control> weak = control_;
    Napi::Function on_abort = Napi::Function::New(env, [weak](const Napi::CallbackInfo& info) -> Napi::Value {
      if (auto c = weak.lock()) c->cancel = true;
      return info.Env().Undefined();
    });
    signal.Get("addEventListener").As<Napi::Function>().Call(signal, {Napi::String::New(env, "abort"), on_abort});
    napi_check(env_, napi_create_reference(env_, signal, 1, &signal_));
    napi_check(env_, napi_create_reference(env_, on_abort, 1, &listener_));
  }

  // Main thread: calls the progress callback with `report`; a throwing
  // callback is logged and the operation goes on.
  void report(napi_value report) {
    if (!progress_ || settled_) return;
    napi_value fn;
    napi_check(env_, napi_get_reference_value(env_, progress_, &fn));
    script_call_result r = call_script(env_, fn, nullptr, 1, &report);
    if (r.ok) return;
    if (r.terminating) {
      control_->cancel = true;
      throw environment_terminating();
    }
    log::err_value("Caught Napi::Error in onProgress: ", r.thrown);
  }

  // Main thread: the operation has ended; no callback after this.
  void settle() {
    settled_ = true;
    ticket_.reset();
    release_script();
  }

 private:
  void release_script() {
    if (signal_ && listener_) unwatch_signal();
    for (napi_ref* r : {&progress_, &signal_, &listener_}) {
      if (*r) napi_delete_reference(env_, *r);
      *r = nullptr;
    }
  }

  // signal.removeEventListener('abort', listener); a failure (a signal
  // whose method throws) is logged.
  void unwatch_signal() noexcept {
    try {
      Napi::HandleScope scope(env_);
      napi_value signal, listener, remove, type;
      napi_check(env_, napi_get_reference_value(env_, signal_, &signal));
      napi_check(env_, napi_get_reference_value(env_, listener_, &listener));
      napi_check(env_, napi_get_named_property(env_, signal, "removeEventListener", &remove));
      napi_check(env_, napi_create_string_utf8(env_, "abort", NAPI_AUTO_LENGTH, &type));
      napi_value argv[2] = {type, listener};
      script_call_result r = call_script(env_, remove, signal, 2, argv);
      if (!r.ok && !r.terminating) log::err_value("Failed to remove the abort listener: ", r.thrown);
    } catch (const std::exception& e) {
      log::err_value("Failed to remove the abort listener: ", e.what());
    } catch (...) {
      log::err("Failed to remove the abort listener");
    }
  }

  napi_env env_;
  std::shared_ptr<scheduler> sched_;
  std::shared_ptr<session_registry> sessions_;
  std::shared_ptr<operation_control> control_;
  napi_ref progress_ = nullptr;
  napi_ref signal_ = nullptr;
  napi_ref listener_ = nullptr;
  std::atomic<bool> finished_{false};
  bool settled_ = false;
  session_registry::ticket ticket_;
};

using progress_builder = napi_value (*)(napi_env env, const operation_control& control);

napi_value listing_progress(napi_env env, const operation_control& control) {
  napi_value report;
  napi_check(env, napi_create_object(env, &report));
  napi_check(env, napi_set_named_property(env, report, "listed", make_number(env, double(control.done.load()))));
  return report;
}

napi_value copy_progress(napi_env env, const operation_control& control) {
  napi_value report;
  napi_check(env, napi_create_object(env, &report));
  napi_check(env, napi_set_named_property(env, report, "bytes", make_number(env, double(control.done.load()))));
  napi_check(env, napi_set_named_property(env, report, "total", make_number(env, double(control.total.load()))));
  return report;
}

// Every 200 ms while the operation runs: one hop to the main thread and one
// call of the progress callback. Never after the promise is settled.
task<void> progress_task(std::shared_ptr<call_state> state, progress_builder build) {
  for (;;) {
    auto io = runtime::io();
    if (!io) co_return;
    co_await io->schedule_after(progress_interval);
    if (state->finished()) co_return;
    co_await state->sched().schedule();
    if (state->settled()) co_return;
    napi_env env = state->sched().env();
    Napi::HandleScope scope(env);
    state->report(build(env, *state->control()));
  }
}

// ---- results

napi_value device_object(napi_env env, const device_record& d) {
  napi_value o;
  napi_check(env, napi_create_object(env, &o));
  napi_check(env, napi_set_named_property(env, o, "index", make_number(env, d.index)));
  napi_check(env, napi_set_named_property(env, o, "deviceId", make_string(env, d.id)));
  napi_check(env, napi_set_named_property(env, o, "deviceName", make_string(env, d.name)));
  napi_check(env, napi_set_named_property(env, o, "deviceModel", make_string(env, d.model)));
  napi_check(env, napi_set_named_property(env, o, "deviceProtocol", make_string(env, d.protocol)));
  napi_check(env, napi_set_named_property(env, o, "deviceManufacturer", make_string(env, d.manufacturer)));
  napi_check(env, napi_set_named_property(env, o, "deviceSerialNumber", make_string(env, d.serial)));
  return o;
}

// The file list: property names made once, then set by value.
napi_value file_list_object(napi_env env, const std::vector<object_record>& objects) {
  static const char* const names[] = {"objectId", "parentId",  "name",       "contentType",
                                      "size",     "createdMs", "modifiedMs", "storageId"};
  napi_value keys[8];
  for (int i = 0; i < 8; ++i) napi_check(env, napi_create_string_utf8(env, names[i], NAPI_AUTO_LENGTH, &keys[i]));
  napi_value kinds[4];
  for (content_kind k : {content_kind::image, content_kind::video, content_kind::folder, content_kind::unknown}) {
    napi_check(env, napi_create_string_utf8(env, content_kind_name(k), NAPI_AUTO_LENGTH, &kinds[int(k)]));
  }
  napi_value null_value;
  napi_check(env, napi_get_null(env, &null_value));

  napi_value list;
  napi_check(env, napi_create_array_with_length(env, objects.size(), &list));
  for (std::size_t i = 0; i < objects.size(); ++i) {
    // A scope per object keeps the handle count bounded; closed on every
    // path, also when a call below throws.
    Napi::HandleScope scope(env);
    const object_record& r = objects[i];
    napi_value o;
    napi_check(env, napi_create_object(env, &o));
    napi_value values[8] = {make_string(env, r.id),
                            make_string(env, r.parent_id),
                            make_string(env, r.name),
                            kinds[int(r.kind)],
                            make_number(env, double(r.size)),
                            r.created_ms ? make_number(env, *r.created_ms) : null_value,
                            r.modified_ms ? make_number(env, *r.modified_ms) : null_value,
                            make_string(env, r.storage_id)};
    for (int k = 0; k < 8; ++k) napi_check(env, napi_set_property(env, o, keys[k], values[k]));
    napi_check(env, napi_set_element(env, list, static_cast<std::uint32_t>(i), o));
  }
  listing_totals t = tally(objects);
  napi_value result;
  napi_check(env, napi_create_object(env, &result));
  napi_check(env, napi_set_named_property(env, result, "photoNum", make_number(env, double(t.photos))));
  napi_check(env, napi_set_named_property(env, result, "videoNum", make_number(env, double(t.videos))));
  napi_check(env, napi_set_named_property(env, result, "totalSize", make_number(env, double(t.total_size))));
  napi_check(env, napi_set_named_property(env, result, "fileList", list));
  return result;
}

// ---- tasks

// Settles on the main thread, with the module's error lines for a failure
// while doing so.
template <typename Fn>
void settle_guarded(Fn&& fn) {
  try {
    fn();
  } catch (const environment_terminating&) {
  } catch (const Napi::Error& e) {
    log::err_value("Napi Error: ", safe_message(e));
  } catch (const std::exception& e) {
    log::err_value("std::exception: ", e.what());
  }
}

task<void> devices_task(std::shared_ptr<scheduler> sched, std::shared_ptr<promise> p) {
  std::vector<device_record> devices;
  std::optional<std::string> failure;
  auto job = on_own_thread([] { return enumerate_devices(); });
  try {
    devices = co_await job;
  } catch (const std::exception& e) {
    failure = e.what();
  }
  co_await sched->schedule();
  napi_env env = sched->env();
  settle_guarded([&] {
    Napi::HandleScope scope(env);
    if (failure) return p->reject(*failure);
    napi_value list;
    napi_check(env, napi_create_array_with_length(env, devices.size(), &list));
    for (std::size_t i = 0; i < devices.size(); ++i) {
      napi_check(env, napi_set_element(env, list, static_cast<std::uint32_t>(i), device_object(env, devices[i])));
    }
    p->resolve(list);
  });
}

// Runs `work` (a blocking job reading `*control`) on a thread of its own,
// then settles `p` on the main thread: rejected with the job's failure, or
// resolved with what `to_script` makes of its result.
template <typename Work, typename ToScript>
task<void> operation_task(std::shared_ptr<call_state> state, std::shared_ptr<promise> p, Work work,
                          ToScript to_script) {
  using result_t = std::invoke_result_t<Work&, operation_control&>;
  result_t result{};
  std::optional<std::string> failure;
  std::shared_ptr<operation_control> control = state->control();
  auto job = on_own_thread([work, control]() mutable { return work(*control); });
  try {
    result = co_await job;
  } catch (const std::exception& e) {
    failure = e.what();
  }
  state->finish();
  co_await state->sched().schedule();
  state->settle();
  napi_env env = state->sched().env();
  settle_guarded([&] {
    Napi::HandleScope scope(env);
    if (failure) return p->reject(*failure);
    p->resolve(to_script(env, result));
  });
  // The result was copied into script: give its memory back now.
  result = result_t{};
}

task<void> listing_task(std::shared_ptr<call_state> state, std::shared_ptr<promise> p, listing_request request) {
  return operation_task(
      std::move(state), std::move(p), [request](operation_control& control) { return list_objects(request, control); },
      [](napi_env env, const std::vector<object_record>& objects) { return file_list_object(env, objects); });
}

task<void> copy_task(std::shared_ptr<call_state> state, std::shared_ptr<promise> p, copy_request request) {
  std::string destination = request.destination_utf8;
  return operation_task(
      std::move(state), std::move(p), [request](operation_control& control) { return copy_object(request, control); },
      [destination](napi_env env, std::uint64_t bytes) -> napi_value {
        Napi::Object result = Napi::Object::New(env);
        result.Set("path", Napi::String::New(env, destination));
        result.Set("bytes", Napi::Number::New(env, double(bytes)));
        return result;
      });
}

// ---- exports

std::shared_ptr<environment> owner_of(Napi::Env env, const char* name) {
  auto owner = environment::current();
  if (!owner) throw Napi::Error::New(env, std::string(name) + " must be called on the thread that loaded ostrel");
  return owner;
}

Napi::Value not_supported(Napi::Env env, const char* name) {
  auto p = std::make_shared<promise>(env);
  Napi::Value result = p->value();
  start_async(reject_on_main(p, std::string(name) + " is not supported on this platform"));
  return result;
}

Napi::Value get_mtp_devices(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  auto owner = owner_of(env, "GetMtpDevices");
  auto p = std::make_shared<promise>(env);
  Napi::Value result = p->value();
  start_async(devices_task(owner->shared_scheduler(), p));
  return result;
}

// Starts `op` for a call with `options`; returns its promise.
template <typename Task>
Napi::Value start_call(Napi::Env env, const char* name, const call_options& options, progress_builder build, Task op) {
  auto owner = owner_of(env, name);
  auto state = std::make_shared<call_state>(owner, env);
  if (options.progress) state->hold_progress(*options.progress);
  if (options.signal) state->watch_signal(*options.signal);
  auto p = std::make_shared<promise>(env);
  Napi::Value result = p->value();
  state->register_session();
  start_async(op(state, p));
  if (state->has_progress()) start_async(progress_task(state, build));
  return result;
}

Napi::Value get_mtp_files_by_id(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  if (info.Length() < 1 || info.Length() > 3) throw Napi::Error::New(env, "Wrong number of arguments");
  listing_request request;
  request.device_id = id_argument(info[0], "GetMtpFilesById");
  if (info.Length() >= 2 && !is_absent(info[1])) request.folder = id_argument(info[1], "GetMtpFilesById");
  call_options options = read_options(info.Length() >= 3 ? info[2] : env.Undefined(), "recursive", true);
  request.recursive = options.flag.value_or(true);
  if (!platform_supported()) return not_supported(env, "GetMtpFilesById");
  return start_call(env, "GetMtpFilesById", options, listing_progress,
                    [request](std::shared_ptr<call_state> s, std::shared_ptr<promise> p) {
                      return listing_task(std::move(s), std::move(p), request);
                    });
}

Napi::Value copy_export(const Napi::CallbackInfo& info, const char* name, resource_kind kind) {
  Napi::Env env = info.Env();
  if (info.Length() < 3 || info.Length() > 4) throw Napi::Error::New(env, "Wrong number of arguments");
  copy_request request;
  request.resource = kind;
  request.device_id = id_argument(info[0], name);
  request.object_id = id_argument(info[1], name);
  if (!info[2].IsString()) wrong_arguments(env);
  request.destination_utf8 = path_argument(info[2], name);
  if (request.destination_utf8.empty()) wrong_arguments(env);
  request.destination = to_wide(request.destination_utf8);
  call_options options = read_options(info.Length() >= 4 ? info[3] : env.Undefined(), "overwrite", true);
  request.overwrite = options.flag.value_or(false);
  if (!platform_supported()) return not_supported(env, name);
  return start_call(env, name, options, copy_progress,
                    [request](std::shared_ptr<call_state> s, std::shared_ptr<promise> p) {
                      return copy_task(std::move(s), std::move(p), request);
                    });
}

Napi::Value get_mtp_file_by_id(const Napi::CallbackInfo& info) {
  return copy_export(info, "GetMtpFileById", resource_kind::data);
}

Napi::Value get_mtp_thumbnail_by_id(const Napi::CallbackInfo& info) {
  return copy_export(info, "GetMtpThumbnailById", resource_kind::thumbnail);
}

}  // namespace
}  // namespace mtp

namespace exports {

void register_get_mtp_devices(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "GetMtpDevices", mtp::get_mtp_devices);
}
void register_get_mtp_files_by_id(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "GetMtpFilesById", mtp::get_mtp_files_by_id);
}
void register_get_mtp_file_by_id(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "GetMtpFileById", mtp::get_mtp_file_by_id);
}
void register_get_mtp_thumbnail(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "GetMtpThumbnailById", mtp::get_mtp_thumbnail_by_id);
}

}  // namespace exports
}  // namespace ostrel
