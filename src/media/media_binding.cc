// InitCorvexSync, ReadMediaDuration and CheckExternalTextureSupport: the
// script side of the SDK loader, the duration probe and the texture check.
#include <napi.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "main/export_steps.h"
#include "media_stats.h"
#include "player_core.h"
#include "runtime/blocking.h"
#include "runtime/environment.h"
#include "runtime/log.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/spawn.h"
#include "sdk_loader.h"
#include "texture_check.h"

namespace ostrel {

namespace media {
namespace {

// How long the duration probe waits for the SDK's answer to its prepare.
constexpr std::chrono::milliseconds duration_probe_wait{10000};

// The UTF-8 text of a string value; a value that is not a string raises the
// Node-API error ("A string was expected"), a NUL character an Error.
std::string utf8_argument(napi_env env, napi_value value, const char* what) {
  std::size_t length = 0;
  napi_check(env, napi_get_value_string_utf8(env, value, nullptr, 0, &length));
  std::string out(length, '\0');
  napi_check(env, napi_get_value_string_utf8(env, value, out.data(), length + 1, &length));
  if (out.find('\0') != std::string::npos) {
    throw Napi::Error::New(env, std::string(what) + ": the path must not contain a NUL character");
  }
  return out;
}

Napi::Value init_corvex_sync(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  if (sdk_inited()) return env.Undefined();
  napi_value options = info.Length() > 0 ? static_cast<napi_value>(info[0]) : static_cast<napi_value>(env.Undefined());
  napi_value dir_value;
  napi_check(env, napi_get_named_property(env, options, "corvexDir", &dir_value));
  std::string dir = utf8_argument(env, dir_value, "InitCorvexSync");
  if (!InitCorvexV2(dir)) return env.Undefined();  // another environment got there first

  bool pointer_ok = false;
  bool available = false;
  std::uint64_t pointer = 0;
  std::string read_error;
  try {
    Napi::Object o(env, options);
    pointer_ok = o.Has("znetPointer") && o.Get("znetPointer").IsBigInt();
    if (o.Has("znetAvailable")) {
      bool value = false;
      napi_check(env, napi_get_value_bool(env, o.Get("znetAvailable"), &value));
      available = value;
    }
    if (pointer_ok && available) {
      bool lossless = false;
      napi_check(env, napi_get_value_bigint_uint64(env, o.Get("znetPointer"), &pointer, &lossless));
    }
  } catch (const Napi::Error& e) {
    read_error = safe_message(e);
    if (read_error.empty()) read_error = "Unknown Exception";
  }
  BindZNetPointer(pointer_ok, available, pointer, read_error);
  return env.Undefined();
}

struct probe_result {
  bool ok = false;
  double duration = 0;
  std::string failure;  // the statistic's "bl1" when not ok
};

// One probe, shared by the task's waiting thread, the thread that talks to
// the SDK and the environment's stop action.
struct probe_state {
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false;       // `result` is final; the SDK thread's later answer is ignored
  bool cancelled = false;  // the environment is ending
  probe_result result;
  std::shared_ptr<player_mailbox> mailbox;

  void cancel() {
    std::lock_guard lock(mutex);
    cancelled = true;
    if (mailbox) mailbox->release();
    cv.notify_all();
  }
};

// On a thread of its own: creates the probe's SDK player, prepares `path`
// and reads its duration, within `deadline`. The SDK may block in any of
// these calls (a file on a share that stopped answering); nobody waits for
// this thread beyond the deadline, and it may be abandoned there.
void probe_sdk(const std::shared_ptr<probe_state>& st, const std::string& path,
               std::chrono::steady_clock::time_point deadline) {
  probe_result r;
  std::shared_ptr<player_holder> holder = player_holder::create(false);
  if (!holder) {
    r.failure = "CreateUniqueMediaPlayer failed";
  } else {
    {
      std::lock_guard lock(st->mutex);
      st->mailbox = holder->mailbox();
      if (st->cancelled) st->mailbox->release();
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    prepare_outcome outcome = holder->prepare(path, {}, std::max(left, std::chrono::milliseconds(0)));
    if (outcome == prepare_outcome::prepared) {
      std::int64_t d = holder->ops().duration(holder->player());
      if (d >= 0) {
        r.ok = true;
        r.duration = static_cast<double>(d);
      } else {
        r.failure = "duration failed";
      }
    } else {
      r.failure = outcome == prepare_outcome::timed_out  ? "prepare timed out"
                  : outcome == prepare_outcome::released ? "prepare abandoned"
                                                         : "prepare failed";
    }
  }
  {
    std::lock_guard lock(st->mutex);
    if (!st->done) {
      st->done = true;
      st->result = std::move(r);
    }
    st->cv.notify_all();
  }
  holder.reset();  // the SDK player is destroyed on a thread of its own
}

task<void> read_duration_task(std::shared_ptr<probe_state> st, std::shared_ptr<promise> p, std::string path,
                              std::shared_ptr<scheduler> sched, std::shared_ptr<session_registry::ticket> ticket) {
  auto start = std::chrono::steady_clock::now();
  auto deadline = start + duration_probe_wait;
  auto job = on_own_thread([st, path, start, deadline]() -> probe_result {
    bool started = runtime::start_job_thread([st, path, deadline] { probe_sdk(st, path, deadline); });
    probe_result r;
    {
      std::unique_lock lock(st->mutex);
      if (!started) {
        st->done = true;
        st->result.failure = "runtime stopped";
      }
      // A little past the deadline, so that the SDK thread's own time-out
      // (which ends the SDK's preparation) is the usual answer.
      st->cv.wait_until(lock, deadline + std::chrono::milliseconds(250), [&] { return st->done || st->cancelled; });
      if (!st->done) {
        st->done = true;
        st->result.failure = st->cancelled ? "prepare abandoned" : "prepare timed out";
        // The SDK did not return in time: its thread is left to end (or
        // not) on its own; the mailbox's release ends any wait it reaches.
        if (st->mailbox) st->mailbox->release();
      }
      r = st->result;
    }
    std::int64_t ms =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count() /
        1000000;
    report_media_stat("ReadMediaDuration", ms, r.ok, r.ok ? "ReadMediaDuration" : r.failure, r.ok ? 0 : -1,
                      {{"bl1", r.failure}});
    return r;
  });
  probe_result r = co_await job;
  co_await sched->schedule();
  ticket->reset();
  if (r.ok) {
    p->resolve(Napi::Number::New(sched->env(), r.duration));
  } else {
    p->reject("ReadMediaDurationAsync failed");
  }
}

Napi::Value read_media_duration(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  InitCorvex();
  if (info.Length() != 1) throw Napi::Error::New(env, "Wrong number of arguments");
  auto owner = environment::current();
  if (!owner) throw Napi::Error::New(env, "ReadMediaDuration must be called on the thread that loaded ostrel");
  if (!sdk_inited()) {
    promise p(env);
    Napi::Value v = p.value();
    p.reject("ReadMediaDuration failed: Corvex not inited");
    return v;
  }
  std::string path = utf8_argument(env, info[0], "ReadMediaDuration");
  auto p = std::make_shared<promise>(env);
  Napi::Value result = p->value();
  // The environment's clean-up ends the probe's wait at once.
  auto st = std::make_shared<probe_state>();
  std::weak_ptr<probe_state> weak = st;
  auto ticket = std::make_shared<session_registry::ticket>(session_registry::add(owner->sessions(), [weak] {
    if (auto s = weak.lock()) s->cancel();
  }));
  start_async(read_duration_task(std::move(st), p, std::move(path), owner->shared_scheduler(), ticket));
  return result;
}

// The answer is the process's: computed once, reported once.
Napi::Value check_external_texture_support(const Napi::CallbackInfo& info) {
  static std::mutex lock;
  static bool tested = false;
  static bool supported = false;
  std::lock_guard guard(lock);
  if (!tested) {
    try {
      supported = test_external_texture_support();
    } catch (...) {
      supported = false;
    }
    tested = true;
    report_texture_stat(supported);
  }
  return Napi::Boolean::New(info.Env(), supported);
}

}  // namespace
}  // namespace media

namespace exports {

void register_init_corvex(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "InitCorvexSync", media::init_corvex_sync);
}
void register_read_media_duration(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "ReadMediaDuration", media::read_media_duration);
}
void register_texture_support(Napi::Env env, Napi::Object exports) {
  attach_export(env, exports, "CheckExternalTextureSupport", media::check_external_texture_support);
}

}  // namespace exports
}  // namespace ostrel
