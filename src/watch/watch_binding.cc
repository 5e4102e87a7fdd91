// StartFileWatch: checks its arguments, reads the options, creates the
// session (WatchData) with a sink that carries its events, errors and ready
// signal to the main thread, starts the two watch loops and the root poll,
// and returns "CloseFileWatch".
#include <napi.h>

#include <deque>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "main/export_steps.h"
#include "runtime/environment.h"
#include "runtime/log.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/spawn.h"
#include "scan/scan_options_binding.h"
#include "scan/scan_walk.h"
#include "watch_data.h"
#include "watch_loop.h"

namespace ostrel {

namespace watch {
namespace {

// The script side of one session: the two callbacks, and the delivery of
// what the loops report. References live on the main thread only.
class script_sink final : public watch_sink, public std::enable_shared_from_this<script_sink> {
 public:
  script_sink(napi_env env, std::shared_ptr<scheduler> sched, napi_value on_event, napi_value on_ready)
      : env_(env), sched_(std::move(sched)) {
    napi_check(env, napi_create_reference(env, on_event, 1, &on_event_));
    napi_check(env, napi_create_reference(env, on_ready, 1, &on_ready_));
  }
  // Elsewhere, or once the environment is cleaned up, the references are
  // left to the environment (a stopped scheduler only means nothing is
  // pending, not that the environment has ended).
  ~script_sink() override {
    if (sched_->is_live_main_thread()) release();
  }

  // Main thread: nothing is delivered from now on.
  void release() {
    closed_ = true;
    for (napi_ref* r : {&on_event_, &on_ready_}) {
      if (*r) napi_delete_reference(env_, *r);
      *r = nullptr;
    }
  }

  void events(std::vector<watch_event> events) override { post(item{item::events, std::move(events), 0, {}, {}}); }
  void error(std::int64_t error_code, std::string reason, std::string code) override {
    post(item{item::error, {}, error_code, std::move(reason), std::move(code)});
  }
  void ready() override { post(item{item::ready, {}, 0, {}, {}}); }

 private:
  // What the loops report, queued in order until the main thread takes it.
  struct item {
    enum kind_t { events, error, ready } kind;
    std::vector<watch_event> list;
    std::int64_t error_code = 0;
    std::string reason;
    std::string code;
  };
  // Any thread. Consecutive batches of events are merged while they wait,
  // so that a burst the main thread could not keep up with arrives in few
  // calls instead of one per read; errors and the ready signal keep their
  // place between them.
  void post(item it);
  static task<void> drain(std::shared_ptr<script_sink> self);
  void deliver_events(std::vector<watch_event>& events);
  void deliver_error(const item& it);
  void deliver_ready();
  // Calls a callback; a throwing one is logged and watching goes on.
  void call(napi_ref callback, std::size_t argc, const napi_value* argv, const char* what);

  napi_env env_;
  std::shared_ptr<scheduler> sched_;
  napi_ref on_event_ = nullptr;
  napi_ref on_ready_ = nullptr;
  bool closed_ = false;  // main thread only
  std::mutex queue_mutex_;
  std::deque<item> queue_;
  bool draining_ = false;  // a drain is scheduled and has not taken the queue yet
};

void script_sink::post(item it) {
  bool start;
  {
    std::lock_guard lock(queue_mutex_);
    if (it.kind == item::events && !queue_.empty() && queue_.back().kind == item::events) {
      auto& list = queue_.back().list;
      list.insert(list.end(), std::make_move_iterator(it.list.begin()), std::make_move_iterator(it.list.end()));
    } else {
      queue_.push_back(std::move(it));
    }
    start = !draining_;
    draining_ = true;
  }
  if (start) spawn(drain(shared_from_this()), runtime::alive());
}

// Main thread. A post after the queue is taken starts the next drain, which
// the scheduler runs after this one: the order holds.
task<void> script_sink::drain(std::shared_ptr<script_sink> self) {
  co_await self->sched_->schedule();
  std::deque<item> items;
  {
    std::lock_guard lock(self->queue_mutex_);
    items.swap(self->queue_);
    self->draining_ = false;
  }
  for (item& it : items) {
    if (self->closed_) co_return;
    switch (it.kind) {
      case item::events:
        self->deliver_events(it.list);
        break;
      case item::error:
        self->deliver_error(it);
        break;
      case item::ready:
        self->deliver_ready();
        break;
    }
  }
}

void script_sink::call(napi_ref callback, std::size_t argc, const napi_value* argv, const char* what) {
  napi_value fn;
  napi_check(env_, napi_get_reference_value(env_, callback, &fn));
  script_call_result r = call_script(env_, fn, nullptr, argc, argv);
  if (r.terminating) {
    closed_ = true;
    throw environment_terminating();
  }
  if (!r.ok) log::out_value(what, r.thrown);
}

// The property names of event objects, made once per delivered batch.
class event_object_builder {
 public:
  explicit event_object_builder(napi_env env) : env_(env) {
    for (std::size_t i = 0; i < std::size(names); ++i)
      napi_check(env, napi_create_string_utf8(env, names[i], NAPI_AUTO_LENGTH, &keys_[i]));
  }

  napi_value make(const watch_event& e) const {
    const scan::FileInfo& i = e.info;
    napi_value stat_values[] = {
        string(i.absolutePath),
        string(i.name),
        string(i.relativePath),
        string(i.relativeDir),
        boolean(i.isFile),
        boolean(i.hidden),
        boolean(i.isSystem),
        number(static_cast<double>(i.size)),
        number(static_cast<double>(i.ino)),
        number(i.ctimeMs),
        number(i.mtimeMs),
        number(i.birthtimeMs),
        boolean(i.readable),
    };
    napi_value stat = object(0, std::size(stat_values), stat_values);
    napi_value event_values[] = {
        string(scan::native_to_utf8(e.file_name)),
        string(watch_event_name(e.action, i.isFile)),
        number(static_cast<double>(e.action)),
        stat,
    };
    return object(std::size(stat_values), std::size(event_values), event_values);
  }

 private:
  static constexpr const char* names[] = {
      "absolutePath", "name",    "relativePath", "relativeDir", "isFile",   "hidden",     "isSystem", "size",     "ino",
      "ctimeMs",      "mtimeMs", "birthtimeMs",  "readable",    "fileName", "watchEvent", "action",   "fileStat",
  };

  napi_value object(std::size_t first_key, std::size_t count, const napi_value* values) const {
    napi_property_descriptor props[std::size(names)];
    for (std::size_t k = 0; k < count; ++k)
      props[k] = {nullptr,   keys_[first_key + k],    nullptr, nullptr, nullptr,
                  values[k], napi_default_jsproperty, nullptr};
    napi_value o;
    napi_check(env_, napi_create_object(env_, &o));
    napi_check(env_, napi_define_properties(env_, o, count, props));
    return o;
  }
  napi_value string(const std::string& s) const {
    napi_value v;
    napi_check(env_, napi_create_string_utf8(env_, s.data(), s.size(), &v));
    return v;
  }
  napi_value number(double d) const {
    napi_value v;
    napi_check(env_, napi_create_double(env_, d, &v));
    return v;
  }
  napi_value boolean(bool b) const {
    napi_value v;
    napi_check(env_, napi_get_boolean(env_, b, &v));
    return v;
  }

  napi_env env_;
  napi_value keys_[std::size(names)];
};

void script_sink::deliver_events(std::vector<watch_event>& events) {
  if (!on_event_) return;
  Napi::HandleScope scope{Napi::Env(env_)};
  event_object_builder builder(env_);
  napi_value arg;
  napi_check(env_, napi_create_array_with_length(env_, events.size(), &arg));
  for (std::size_t i = 0; i < events.size(); ++i)
    napi_check(env_, napi_set_element(env_, arg, static_cast<uint32_t>(i), builder.make(events[i])));
  call(on_event_, 1, &arg, "Caught Napi::Error in FileWatch callback: ");
}

void script_sink::deliver_error(const item& it) {
  if (!on_event_) return;
  Napi::Env env(env_);
  Napi::HandleScope scope(env);
  Napi::Object o = Napi::Object::New(env);
  o.Set("errorCode", static_cast<double>(it.error_code));
  o.Set("errorReason", it.reason);
  o.Set("code", it.code);
  napi_value arg = o;
  call(on_event_, 1, &arg, "Caught Napi::Error in FileWatch callback: ");
}

void script_sink::deliver_ready() {
  if (!on_ready_) return;
  Napi::HandleScope scope{Napi::Env(env_)};
  call(on_ready_, 0, nullptr, "Caught Napi::Error in FileWatch ready callback: ");
}

// One StartFileWatch call on the script side: the session, its sink, the
// scheduler hold and the registration with the environment.
class watch_session : public std::enable_shared_from_this<watch_session> {
 public:
  watch_session(std::shared_ptr<WatchData> w, std::shared_ptr<script_sink> sink, std::shared_ptr<scheduler> sched)
      : w_(std::move(w)), sink_(std::move(sink)), sched_(std::move(sched)) {}

  void start(environment& env) {
    sched_->add_ref();
    held_ = true;
    // The registry owns the session until it is closed: a script that drops
    // the close function still gets its events, and the environment's
    // clean-up still closes it.
    ticket_ = session_registry::add(env.sessions(), [self = shared_from_this()] { self->close(); });
    start_watch_loops(w_);
  }

  // Stops the session; harmless when called again. Off the main thread (a
  // stop from elsewhere) only the thread-safe half runs.
  void close() {
    w_->stop();
    if (!sched_->is_main_thread()) return;
    sink_->release();
    ticket_.reset();
    if (held_) {
      held_ = false;
      sched_->release();
    }
  }

 private:
  std::shared_ptr<WatchData> w_;
  std::shared_ptr<script_sink> sink_;
  std::shared_ptr<scheduler> sched_;
  session_registry::ticket ticket_;
  bool held_ = false;
};

Napi::Value start_file_watch(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  if (info.Length() != 3 && info.Length() != 4) throw Napi::Error::New(env, "Wrong number of arguments");
  if (!info[0].IsString() || !info[1].IsFunction() || !info[2].IsFunction()) {
    throw Napi::Error::New(env, "Wrong arguments");
  }
  auto owner = environment::current();
  if (!owner) throw Napi::Error::New(env, "StartFileWatch must be called on the thread that loaded ostrel");
  std::string root_utf8 = path_argument(info[0], "StartFileWatch");
  scan::ScanFilters filters;
  std::vector<native_string> targets;
  watch_settings settings;
  if (info.Length() == 4 && info[3].IsObject()) {
    Napi::Object options = info[3].As<Napi::Object>();
    scan::read_watch_options(env, options, filters, targets);
    Napi::Value overflow = options.Get("reportOverflow");
    settings.report_overflow = overflow.IsBoolean() && overflow.As<Napi::Boolean>().Value();
  }
  auto sink = std::make_shared<script_sink>(env, owner->shared_scheduler(), info[1], info[2]);
  auto data = std::make_shared<WatchData>(scan::walk_root(scan::utf8_to_native(root_utf8)), std::move(filters),
                                          std::move(targets), settings, sink);
  auto session = std::make_shared<watch_session>(data, sink, owner->shared_scheduler());
  session->start(*owner);
  return Napi::Function::New(
      env,
      [session](const Napi::CallbackInfo& call) -> Napi::Value {
        session->close();
        return call.Env().Undefined();
      },
      "CloseFileWatch");
}

}  // namespace
}  // namespace watch

namespace exports {

void register_start_file_watch(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "StartFileWatch", watch::start_file_watch);
}

}  // namespace exports
}  // namespace ostrel
