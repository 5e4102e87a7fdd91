// GetDriveList and GetHardwareDisk: each returns a promise at once and reads
// the machine's drives or disks as one job on a thread of its own (COM is
// initialised there, and a dead network drive may block it for tens of
// seconds). The promise resolves on the main thread, never rejects: failures
// are logged and give an empty or shorter list. With { timeoutMs } it
// resolves at the limit with the records read so far; the job is left to
// end by itself and its later records are dropped.
#include "storage_binding.h"

#include <chrono>
#include <cmath>
#include <exception>
#include <optional>
#include <string>

#include "main/export_steps.h"
#include "runtime/blocking.h"
#include "runtime/environment.h"
#include "runtime/exceptions.h"
#include "runtime/log.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/spawn.h"

namespace ostrel {
namespace storage {

namespace {

// The longest time limit accepted, as for setTimeout.
constexpr double max_timeout_ms = 2147483647.0;

template <typename Record>
struct list_call {
  list_call(napi_env env, std::shared_ptr<storage_source> s) : result(env), source(std::move(s)) {}
  ~list_call() {
    // The environment went away first: nobody waits for this promise.
    if (stopping.load()) result.abandon();
  }

  promise result;
  std::shared_ptr<storage_source> source;
  std::shared_ptr<scheduler> sched;
  const char* name = "";
  std::optional<std::chrono::milliseconds> timeout;
  collector<Record> records;
  cancellation_source timer;
  std::atomic<bool> job_done{false};
  std::atomic<bool> limited{false};  // the job itself ended at the limit
  std::atomic<bool> stopping{false};
  session_registry::ticket ticket;
};

void read_into(storage_source& s, const query_limits& l, collector<drive_record>& out) {
  s.drives(l, out);
}
void read_into(storage_source& s, const query_limits& l, collector<disk_record>& out) {
  s.disks(l, out);
}

// The job: reads the list; an exception (a size that does not convert) is
// logged as a task failure and keeps the records read before it.
template <typename Record>
void run_job(const std::shared_ptr<list_call<Record>>& call) {
  query_limits limits;
  if (call->timeout) limits.deadline = std::chrono::steady_clock::now() + *call->timeout;
  list_call<Record>* raw = call.get();
  limits.abandoned = [raw] { return raw->stopping.load() || raw->records.abandoned(); };
  try {
    read_into(*call->source, limits, call->records);
  } catch (...) {
    log_task_failure();
  }
  call->limited = limits.expired();
  call->job_done = true;
  call->timer.request_cancellation();
}

template <typename Record>
task<void> job_task(std::shared_ptr<list_call<Record>> call) {
  auto job = on_own_thread([call] { run_job(call); });
  try {
    co_await job;
  } catch (const runtime_stopped&) {
  }
}

Napi::Object to_object(Napi::Env env, const drive_record& d) {
  Napi::Object o = Napi::Object::New(env);
  o.Set("mounted", Napi::String::New(env, d.caption));
  o.Set("available", Napi::Number::New(env, static_cast<double>(d.free_space)));
  o.Set("blocks", Napi::Number::New(env, static_cast<double>(d.size)));
  o.Set("used", Napi::Number::New(env, static_cast<double>(d.used)));
  o.Set("capacity", Napi::String::New(env, d.capacity));
  o.Set("filesystem", Napi::String::New(env, d.description));
  o.Set("drivetype", Napi::Number::New(env, d.drive_type));
  return o;
}

Napi::Object to_object(Napi::Env env, const disk_record& d) {
  Napi::Object o = Napi::Object::New(env);
  o.Set("mounted", Napi::String::New(env, d.mounted));
  o.Set("storageType", Napi::String::New(env, d.storage_type));
  o.Set("diskNumber", Napi::Number::New(env, static_cast<double>(d.disk_number)));
  o.Set("driveType", Napi::Number::New(env, d.drive_type));
  o.Set("fileSystem", Napi::String::New(env, d.file_system));
  o.Set("freeSpace", Napi::Number::New(env, static_cast<double>(d.free_space)));
  o.Set("size", Napi::Number::New(env, static_cast<double>(d.size)));
  o.Set("interfaceType", Napi::String::New(env, d.interface_type));
  o.Set("mediaType", Napi::String::New(env, d.media_type));
  o.Set("model", Napi::String::New(env, d.model));
  return o;
}

template <typename Record>
task<void> list_task(std::shared_ptr<list_call<Record>> call) {
  if (!call->timeout) {
    auto job = on_own_thread([call] { run_job(call); });
    co_await job;
  } else {
    spawn(job_task(call), runtime::alive());
    auto io = runtime::io();
    if (!io) co_return;
    try {
      auto wait = io->schedule_after(*call->timeout, call->timer.token());
      co_await wait;
    } catch (const operation_cancelled&) {
      // The job ended first, or the environment is going away.
    }
    co_await on_pool();
  }
  std::vector<Record> records = call->records.take();
  if ((!call->job_done.load() || call->limited.load()) && !call->stopping.load()) {
    log::err(std::string(call->name) + ": the time limit of " + std::to_string(call->timeout->count()) +
             " ms ran out; resolving with the " + std::to_string(records.size()) + " entries read so far");
  }
  co_await call->sched->schedule();
  try {
    Napi::Env env(call->sched->env());
    Napi::HandleScope scope(env);
    Napi::Array list = Napi::Array::New(env, records.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
      list.Set(static_cast<std::uint32_t>(i), to_object(env, records[i]));
    }
    call->result.resolve(list);
  } catch (...) {
    // Script cannot be called any more (a Worker ended while its answer was
    // being built); anything else is logged by the task's error path.
    call->result.abandon();
    throw;
  }
  call->ticket.reset();
}

std::optional<std::chrono::milliseconds> read_timeout(Napi::Env env, Napi::Value options, const char* name) {
  if (!options.IsObject() || options.IsFunction()) return std::nullopt;
  Napi::Value v = options.As<Napi::Object>().Get("timeoutMs");
  if (v.IsUndefined()) return std::nullopt;
  double ms = v.IsNumber() ? v.As<Napi::Number>().DoubleValue() : -1;
  if (!v.IsNumber() || !std::isfinite(ms) || ms < 0 || ms > max_timeout_ms) {
    throw Napi::TypeError::New(env,
                               std::string(name) + ": timeoutMs must be a number of milliseconds from 0 to 2147483647");
  }
  return std::chrono::milliseconds(static_cast<long long>(ms));
}

template <typename Record>
Napi::Value start(Napi::Env env, Napi::Value options, const char* name, std::shared_ptr<storage_source> source) {
  auto timeout = read_timeout(env, options, name);
  auto owner = environment::current();
  if (!owner) throw Napi::Error::New(env, std::string(name) + " must be called on the thread that loaded ostrel");
  auto call = std::make_shared<list_call<Record>>(env, std::move(source));
  call->name = name;
  call->timeout = timeout;
  call->sched = owner->shared_scheduler();
  // The environment's clean-up ends the wait for the time limit and tells
  // the job to stop between records; a job blocked in a system call is left
  // to the runtime's end.
  std::weak_ptr<list_call<Record>> weak = call;
  call->ticket = session_registry::add(owner->sessions(), [weak] {
    if (auto c = weak.lock()) {
      c->stopping = true;
      c->timer.request_cancellation();
    }
  });
  Napi::Promise p = call->result.value();
  start_async(list_task(call));
  return p;
}

}  // namespace

Napi::Value start_storage_list(Napi::Env env, Napi::Value options, storage_list which,
                               std::shared_ptr<storage_source> source) {
  if (which == storage_list::drives) return start<drive_record>(env, options, "GetDriveList", std::move(source));
  return start<disk_record>(env, options, "GetHardwareDisk", std::move(source));
}

namespace {
Napi::Value first_argument(const Napi::CallbackInfo& info) {
  return info.Length() > 0 ? info[0] : info.Env().Undefined();
}
}  // namespace

}  // namespace storage

namespace exports {

void register_get_drive_list(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "GetDriveList", [](const Napi::CallbackInfo& info) {
    return storage::start_storage_list(info.Env(), storage::first_argument(info), storage::storage_list::drives,
                                       storage::system_storage_source());
  });
}

void register_get_hardware_disk(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "GetHardwareDisk", [](const Napi::CallbackInfo& info) {
    return storage::start_storage_list(info.Env(), storage::first_argument(info), storage::storage_list::disks,
                                       storage::system_storage_source());
  });
}

}  // namespace exports
}  // namespace ostrel
