// ScanAllSubFiles: checks its arguments, reads the options, starts the walk
// on a pool worker and a delivery task that hands the walk's records to
// script in batches (one main-thread hop per batch, at most about 100 ms
// after a record was collected), then the counts; returns "CloseScanFiles".
#include <napi.h>

#include <chrono>
#include <exception>
#include <memory>
#include <thread>

#include "api_compat.h"
#include "batch_encoding.h"
#include "file_object_binding.h"
#include "main/export_steps.h"
#include "runtime/blocking.h"
#include "runtime/environment.h"
#include "runtime/exceptions.h"
#include "runtime/log.h"
#include "runtime/memory.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/scheduler.h"
#include "runtime/spawn.h"
#include "scan_data.h"
#include "scan_options_binding.h"
#include "scan_walk.h"

namespace ostrel {

namespace scan {
namespace {

// What one call holds on the script side. Its script references (the two
// callbacks, the factory's function) are script_refs: the last owner of the
// session is often a pool worker whose delivery found the scheduler stopped,
// after the environment was torn down, and the references are then left to
// the environment.
class scan_session {
 public:
  scan_session(std::shared_ptr<environment> env, std::shared_ptr<ScanData> data)
      : env_(env->env()), sched_(env->shared_scheduler()), data_(std::move(data)) {}

  scheduler& sched() { return *sched_; }

  ScanData& data() { return *data_; }
  const std::shared_ptr<ScanData>& shared_data() { return data_; }

  void hold(napi_value update, napi_value result) {
    update_ = script_ref(env_, update);
    result_ = script_ref(env_, result);
    factory_ = std::make_unique<file_object_factory>(env_);
  }

  // Registers the scan with its environment, whose clean-up stops it (and
  // so wakes a walk waiting for script to catch up) before any thread is
  // joined.
  void register_with(environment& env) {
    std::weak_ptr<ScanData> weak = data_;
    ticket_ = session_registry::add(env.sessions(), [weak] {
      if (auto d = weak.lock()) d->request_stop();
    });
  }

  // Main thread: the scan is over; leave the registry and drop the script
  // references.
  void end() {
    ticket_.reset();
    release_script();
  }

  // Main thread: the callbacks will not be called again.
  void release_script() {
    factory_.reset();
    update_.reset();
    result_.reset();
  }

  void deliver_update(const encoded_batch& batch);
  void deliver_result();

 private:
  void call(const script_ref& callback, napi_value argument, const char* what);

  napi_env env_;
  std::shared_ptr<scheduler> sched_;
  std::shared_ptr<ScanData> data_;
  script_ref update_;
  script_ref result_;
  std::unique_ptr<file_object_factory> factory_;
  session_registry::ticket ticket_;
};

void scan_session::call(const script_ref& callback, napi_value argument, const char* what) {
  napi_value fn = callback.value();
  script_call_result r = call_script(env_, fn, nullptr, 1, &argument);
  if (r.ok) return;
  if (r.terminating) {
    // The environment is being terminated (a Worker ended inside this
    // callback): nothing more can be delivered.
    data_->request_stop();
    throw environment_terminating();
  }
  // A throwing callback is logged and does not end the scan.
  log::out_value(what, r.thrown);
}

void scan_session::deliver_update(const encoded_batch& batch) {
  if (!update_ || data_->stopped()) return;
  Napi::HandleScope scope(env_);
  // The same string on every object of the update ("dirPath").
  napi_value dir_path;
  napi_check(env_, napi_create_string_utf8(env_, data_->root_utf8.data(), data_->root_utf8.size(), &dir_path));
  napi_value update = factory_->make_update(batch, dir_path);
  call(update_, update, "Caught Napi::Error in ScanFileUpdate: ");
}

void scan_session::deliver_result() {
  if (!result_ || data_->stopped()) return;
  Napi::HandleScope scope(env_);
  Napi::Env env(env_);
  Napi::Object result = Napi::Object::New(env);
  ScanData& d = *data_;
  std::uint64_t total = d.totalFileCount.load();
  result.Set("fileCountBeyondLimit", Napi::Boolean::New(env, total >= ScanData::file_count_limit));
  result.Set("totalFileCount", Napi::Number::New(env, static_cast<double>(total)));
  result.Set("filteredFileCount", Napi::Number::New(env, static_cast<double>(d.filteredFileCount.load())));
  result.Set("hiddenSystemFileCount", Napi::Number::New(env, static_cast<double>(d.hiddenSystemFileCount.load())));
  // Entries not delivered for what they are: no regular file or folder, or
  // a name that is not valid Unicode.
  result.Set("specialFileCount", Napi::Number::New(env, static_cast<double>(d.specialFileCount.load())));
  result.Set("invalidNameCount", Napi::Number::New(env, static_cast<double>(d.invalid_name_count())));
  // What the walk could not cover, after the counts.
  result.Set("complete", Napi::Boolean::New(env, d.complete()));
  std::vector<skipped_folder> skipped = d.skipped_folders();
  Napi::Array skipped_array = Napi::Array::New(env, skipped.size());
  for (std::size_t i = 0; i < skipped.size(); ++i) {
    Napi::Object entry = Napi::Object::New(env);
    entry.Set("path", Napi::String::New(env, skipped[i].path));
    entry.Set("code", Napi::Number::New(env, skipped[i].code));
    entry.Set("reason", Napi::String::New(env, skipped[i].reason));
    skipped_array.Set(static_cast<std::uint32_t>(i), entry);
  }
  result.Set("skippedFolders", skipped_array);
  std::vector<looped_folder> looped = d.looped_folders();
  Napi::Array looped_array = Napi::Array::New(env, looped.size());
  for (std::size_t i = 0; i < looped.size(); ++i) {
    Napi::Object entry = Napi::Object::New(env);
    entry.Set("path", Napi::String::New(env, looped[i].path));
    entry.Set("sameAs", Napi::String::New(env, looped[i].same_as));
    looped_array.Set(static_cast<std::uint32_t>(i), entry);
  }
  result.Set("loopedFolders", looped_array);
  std::vector<invalid_name_folder> invalid = d.invalid_name_folders();
  Napi::Array invalid_array = Napi::Array::New(env, invalid.size());
  for (std::size_t i = 0; i < invalid.size(); ++i) {
    Napi::Object entry = Napi::Object::New(env);
    entry.Set("path", Napi::String::New(env, invalid[i].path));
    entry.Set("count", Napi::Number::New(env, static_cast<double>(invalid[i].count)));
    invalid_array.Set(static_cast<std::uint32_t>(i), entry);
  }
  result.Set("invalidNameFolders", invalid_array);
  call(result_, result, "Caught Napi::Error in ScanFileResult: ");
}

// The walk blocks for as long as the tree is big: it runs on a thread of its
// own, never holding a pool worker that deliveries need.
task<void> walk_task(std::shared_ptr<ScanData> data) {
  // A named awaiter: GCC 12 destroys the captures of a lambda written
  // inside a co_await expression twice.
  auto walk = on_own_thread([data] {
    // run_walk accounts for its own failures; whatever escapes it still
    // makes the result say the scan is incomplete.
    try {
      run_walk(data);
    } catch (const std::exception& e) {
      data->add_skipped({}, 0, std::string("the walk stopped: ") + e.what());
    } catch (...) {
      data->add_skipped({}, 0, "the walk stopped: unknown error");
    }
    data->end_work();
  });
  try {
    co_await walk;
  } catch (const runtime_stopped&) {
    data->end_work();  // the walk never started
  }
}

// One update taken from the collected records and encoded for script. The
// delivery loop keeps two: while the main thread turns one into objects, a
// pool worker takes and encodes the next, so the main thread only ever
// builds objects. Shared with the encoding job, which may still run when
// the loop has ended (the environment went away during a delivery).
struct prepared_update {
  scan_update records;  // its buffers serve every update of the scan
  encoded_batch batch;
  bool more = false;    // records were left for the next update
  bool last = false;    // the scan had finished before this one was taken
  bool failed = false;  // the runtime stopped before it could be prepared
  async_auto_reset_event ready;
};

// Takes the next update and encodes it; on a pool worker.
void prepare(ScanData& data, prepared_update& u) {
  // Read before taking: once finished, nothing can be collected any more.
  u.last = data.finished();
  u.batch.record_count = 0;
  try {
    data.take_update(ScanData::update_record_limit, u.more, u.records);
    encode_batch(u.records.files, u.records.folders, u.batch);
  } catch (const std::exception& e) {
    log::out_value("Exception caught in Update Vectors move: ", e.what());
  } catch (...) {
    log::out("Unknown exception caught in Update Vectors move");
  }
}

// prepare() on a pool worker, started from the main thread; sets `ready`.
task<void> prepare_on_pool(std::shared_ptr<ScanData> data, std::shared_ptr<prepared_update> u) {
  try {
    co_await on_pool();
    prepare(*data, *u);
  } catch (...) {
    u->failed = true;  // the runtime is going away: nothing more is delivered
  }
  u->ready.set();
}

// The delivery loop: waits for collected records, lets more gather (up to
// 100 ms, see ScanData::update_due_token), encodes them on a pool worker
// (never on the I/O service's thread, which every timer needs) and hops to
// the main thread once to hand them to script. After the last records, the
// counts. A stopped scheduler (the environment is going away) ends it at
// the hop.
task<void> scan_task(std::shared_ptr<scan_session> session) {
  ScanData& data = session->data();
  data.begin_work();
  spawn(walk_task(session->shared_data()), runtime::alive());
  auto current = std::make_shared<prepared_update>();
  auto next = std::make_shared<prepared_update>();
  bool next_started = false;  // `next` is being prepared on a pool worker
  for (;;) {
    if (next_started) {
      // Resumes on the worker that prepared it, or here if it already has.
      co_await next->ready;
      next_started = false;
      if (next->failed) co_return;
      std::swap(current, next);
    } else {
      co_await data.batch_ready;
      auto io = runtime::io();
      if (!io) co_return;  // the module is going away
      if (!data.finished() && !data.stopped()) {
        // An update leaves 100 ms after its first record, or as soon as it
        // is full or the walk has ended.
        try {
          co_await io->schedule_after(std::chrono::milliseconds(100), data.update_due_token());
        } catch (const operation_cancelled&) {
        }
      }
      co_await on_pool();
      prepare(data, *current);
    }
    co_await session->sched().schedule();
    if (current->more) {
      // The rest is taken and encoded meanwhile.
      next_started = true;
      spawn(prepare_on_pool(session->shared_data(), next), runtime::alive());
    }
    try {
      if (current->batch.record_count) session->deliver_update(current->batch);
    } catch (const environment_terminating&) {
      throw;
    } catch (const std::exception& e) {
      log::out_value("Exception caught in dispatching scan file update: ", e.what());
    } catch (...) {
      log::out("Unknown exception caught in dispatching scan file update");
    }
    data.release_backlog(current->batch.record_count);
    if (current->last && !current->more) break;
  }
  try {
    session->deliver_result();
  } catch (const environment_terminating&) {
    throw;
  } catch (const std::exception& e) {
    log::out_value("Exception caught in dispatching scan file update: ", e.what());
  }
  session->end();
  current.reset();
  next.reset();
  // The walk's threads freed what they allocated; give it back now rather
  // than keep it in their allocator arenas for the life of the process.
  co_await on_pool();
  release_free_memory();
}

Napi::Value scan_all_sub_files(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  if (info.Length() != 4 || !info[0].IsString() || !info[1].IsFunction() || !info[2].IsFunction() ||
      !info[3].IsObject()) {
    throw Napi::Error::New(env, "Wrong arguments");
  }
  auto data = std::make_shared<ScanData>();
  data->root_utf8 = path_argument(info[0], "ScanAllSubFiles");
  data->root = walk_root(utf8_to_native(data->root_utf8));
  read_scan_options(env, info[3].As<Napi::Object>(), data->filters);
  // With two or more cores one helper thread lists and queries folders
  // beside the walking one (see docs/scan.md, "Speed").
  data->filters.metadata_helpers = std::thread::hardware_concurrency() >= 2 ? 1 : 0;

  auto owner = environment::current();
  if (!owner) throw Napi::Error::New(env, "ScanAllSubFiles must be called on the thread that loaded ostrel");
  auto session = std::make_shared<scan_session>(owner, data);
  session->hold(info[1], info[2]);
  session->register_with(*owner);
  start_async(scan_task(session));

  auto close = Napi::Function::New(
      env,
      [session](const Napi::CallbackInfo& call) -> Napi::Value {
        // Later calls find the flag set and do nothing.
        if (!session->data().request_stop()) session->release_script();
        return call.Env().Undefined();
      },
      "CloseScanFiles");
  return close;
}

}  // namespace
}  // namespace scan

namespace exports {

void init_api_compat() {
  scan::api_compat::init();
}

void register_scan_all_sub_files(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "ScanAllSubFiles", scan::scan_all_sub_files);
}

}  // namespace exports
}  // namespace ostrel
