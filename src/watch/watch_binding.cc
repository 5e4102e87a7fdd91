// StartFileWatch: checks its arguments, reads the options, creates the
// session (WatchData) with a sink that carries its events, errors and ready
// signal to the main thread, polls the root every 5007 ms for its deletion
// and return, starts the two watch loops and returns "CloseFileWatch".
#include <napi.h>
#include <uv.h>

#include <memory>
#include <utility>

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

constexpr unsigned root_poll_ms = 5007;

// The script side of one session: the two callbacks, and the delivery of
// what the loops report. References live on the main thread only.
class script_sink final : public watch_sink, public std::enable_shared_from_this<script_sink> {
 public:
  script_sink(napi_env env, std::shared_ptr<scheduler> sched, napi_value on_event, napi_value on_ready)
      : env_(env), sched_(std::move(sched)) {
    napi_check(env, napi_create_reference(env, on_event, 1, &on_event_));
    napi_check(env, napi_create_reference(env, on_ready, 1, &on_ready_));
  }
  ~script_sink() override {
    if (sched_->is_main_thread() && !sched_->is_stopped()) release();
  }

  // Main thread: nothing is delivered from now on.
  void release() {
    closed_ = true;
    for (napi_ref* r : {&on_event_, &on_ready_}) {
      if (*r) napi_delete_reference(env_, *r);
      *r = nullptr;
    }
  }

  void events(std::vector<watch_event> events) override {
    spawn(deliver_events(shared_from_this(), std::move(events)), runtime::alive());
  }
  void error(std::int64_t error_code, std::string reason, std::string code) override {
    spawn(deliver_error(shared_from_this(), error_code, std::move(reason), std::move(code)), runtime::alive());
  }
  void ready() override { spawn(deliver_ready(shared_from_this()), runtime::alive()); }

 private:
  static task<void> deliver_events(std::shared_ptr<script_sink> self, std::vector<watch_event> events);
  static task<void> deliver_error(std::shared_ptr<script_sink> self, std::int64_t error_code, std::string reason,
                                  std::string code);
  static task<void> deliver_ready(std::shared_ptr<script_sink> self);
  // Calls a callback; a throwing one is logged and watching goes on.
  void call(napi_ref callback, std::size_t argc, const napi_value* argv, const char* what);

  napi_env env_;
  std::shared_ptr<scheduler> sched_;
  napi_ref on_event_ = nullptr;
  napi_ref on_ready_ = nullptr;
  bool closed_ = false;  // main thread only
};

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

napi_value event_object(Napi::Env env, const watch_event& e) {
  Napi::Object stat = Napi::Object::New(env);
  const scan::FileInfo& i = e.info;
  stat.Set("absolutePath", i.absolutePath);
  stat.Set("name", i.name);
  stat.Set("relativePath", i.relativePath);
  stat.Set("relativeDir", i.relativeDir);
  stat.Set("isFile", i.isFile);
  stat.Set("hidden", i.hidden);
  stat.Set("isSystem", i.isSystem);
  stat.Set("size", static_cast<double>(i.size));
  stat.Set("ino", static_cast<double>(i.ino));
  stat.Set("ctimeMs", i.ctimeMs);
  stat.Set("mtimeMs", i.mtimeMs);
  stat.Set("birthtimeMs", i.birthtimeMs);
  stat.Set("readable", i.readable);
  Napi::Object o = Napi::Object::New(env);
  o.Set("fileName", scan::native_to_utf8(e.file_name));
  o.Set("watchEvent", watch_event_name(e.action, i.isFile));
  o.Set("action", static_cast<double>(e.action));
  o.Set("fileStat", stat);
  return o;
}

task<void> script_sink::deliver_events(std::shared_ptr<script_sink> self, std::vector<watch_event> events) {
  co_await self->sched_->schedule();
  if (self->closed_ || !self->on_event_) co_return;
  Napi::Env env(self->env_);
  Napi::HandleScope scope(env);
  Napi::Array array = Napi::Array::New(env, events.size());
  for (std::size_t i = 0; i < events.size(); ++i) array.Set(static_cast<uint32_t>(i), event_object(env, events[i]));
  napi_value arg = array;
  self->call(self->on_event_, 1, &arg, "Caught Napi::Error in FileWatch callback: ");
}

task<void> script_sink::deliver_error(std::shared_ptr<script_sink> self, std::int64_t error_code, std::string reason,
                                      std::string code) {
  co_await self->sched_->schedule();
  if (self->closed_ || !self->on_event_) co_return;
  Napi::Env env(self->env_);
  Napi::HandleScope scope(env);
  Napi::Object o = Napi::Object::New(env);
  o.Set("errorCode", static_cast<double>(error_code));
  o.Set("errorReason", reason);
  o.Set("code", code);
  napi_value arg = o;
  self->call(self->on_event_, 1, &arg, "Caught Napi::Error in FileWatch callback: ");
}

task<void> script_sink::deliver_ready(std::shared_ptr<script_sink> self) {
  co_await self->sched_->schedule();
  if (self->closed_ || !self->on_ready_) co_return;
  Napi::HandleScope scope(Napi::Env(self->env_));
  self->call(self->on_ready_, 0, nullptr, "Caught Napi::Error in FileWatch ready callback: ");
}

// One StartFileWatch call on the script side: the session, its sink, the
// root poll, the scheduler hold and the registration with the environment.
class watch_session : public std::enable_shared_from_this<watch_session> {
 public:
  watch_session(std::shared_ptr<WatchData> w, std::shared_ptr<script_sink> sink, std::shared_ptr<scheduler> sched)
      : w_(std::move(w)), sink_(std::move(sink)), sched_(std::move(sched)) {}

  void start(environment& env, napi_env napi, uv_loop_t* loop) {
    sched_->add_ref();
    held_ = true;
    // TRICKY: closing the root poll completes only once its pending stat
    // has returned from libuv's thread pool, possibly after the last turn
    // of a Worker's event loop; a handle still closing then makes node abort
    // at the loop's close. An asynchronous clean-up hook keeps the
    // environment waiting until the poll is really closed. The hook belongs
    // to the poll (its close callback removes it), not to the session, which
    // may be gone by then.
    std::weak_ptr<watch_session> weak = weak_from_this();
    // The registry owns the session until it is closed: a script that drops
    // the close function still gets its events, and the environment's
    // clean-up still closes it.
    ticket_ = session_registry::add(env.sessions(), [self = shared_from_this()] { self->close(); });
    auto* box = new poll_box{weak, nullptr};
    if (napi_add_async_cleanup_hook(napi, &on_async_cleanup, box, &box->hook) != napi_ok) box->hook = nullptr;
    poll_ = new uv_fs_poll_t{};
    poll_->data = box;
    uv_fs_poll_init(loop, poll_);
    std::string root = scan::native_to_utf8(w_->rootPath);
    uv_fs_poll_start(poll_, &on_poll, root.c_str(), root_poll_ms);
    start_watch_loops(w_);
  }

  // Stops the session; harmless when called again. Off the main thread (a
  // stop from elsewhere) only the thread-safe half runs.
  void close() {
    w_->stop();
    if (!sched_->is_main_thread()) return;
    if (poll_) {
      uv_fs_poll_stop(poll_);
      uv_close(reinterpret_cast<uv_handle_t*>(poll_), [](uv_handle_t* h) {
        auto* p = reinterpret_cast<uv_fs_poll_t*>(h);
        auto* box = static_cast<poll_box*>(p->data);
        // The environment need not wait any longer.
        if (box->hook) napi_remove_async_cleanup_hook(box->hook);
        delete box;
        delete p;
      });
      poll_ = nullptr;
    }
    sink_->release();
    ticket_.reset();
    if (held_) {
      held_ = false;
      sched_->release();
    }
  }

 private:
  // What the root poll's handle carries: its session, and the clean-up hook
  // that its close callback removes.
  struct poll_box {
    std::weak_ptr<watch_session> session;
    napi_async_cleanup_hook_handle hook;
  };

  static void on_async_cleanup(napi_async_cleanup_hook_handle, void* arg) {
    // Closing the session closes the poll, whose close callback removes
    // this hook.
    if (auto self = static_cast<poll_box*>(arg)->session.lock()) self->close();
  }

  static void on_poll(uv_fs_poll_t* handle, int status, const uv_stat_t*, const uv_stat_t* curr) {
    auto self = static_cast<poll_box*>(handle->data)->session.lock();
    if (!self || !self->w_->running.load()) return;
    WatchData& w = *self->w_;
    if (status < 0 || curr->st_ino == 0) {
      if (!w.rootRemoved.exchange(true)) w.CancelPendingReads();
    } else if (w.rootRemoved.exchange(false)) {
      w.dirDeletedChangeEvents[0].set();
      w.dirDeletedChangeEvents[1].set();
    }
  }

  std::shared_ptr<WatchData> w_;
  std::shared_ptr<script_sink> sink_;
  std::shared_ptr<scheduler> sched_;
  uv_fs_poll_t* poll_ = nullptr;
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
  uv_loop_t* loop = nullptr;
  napi_check(env, napi_get_uv_event_loop(env, &loop));
  auto sink = std::make_shared<script_sink>(env, owner->shared_scheduler(), info[1], info[2]);
  auto data = std::make_shared<WatchData>(scan::walk_root(scan::utf8_to_native(root_utf8)), std::move(filters),
                                          std::move(targets), settings, sink);
  auto session = std::make_shared<watch_session>(data, sink, owner->shared_scheduler());
  session->start(*owner, env, loop);
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
