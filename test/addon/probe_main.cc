// The runtime probe's entry, and the probes of the main-thread scheduler and
// of spawned tasks.
#include <napi.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "probe.h"
#include "runtime/clock.h"
#include "runtime/environment.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/scheduler.h"
#include "runtime/spawn.h"
#include "runtime/thread_id.h"
#include "runtime/thread_pool.h"

namespace ostrel::probe {

namespace {
std::shared_ptr<scheduler> g_sched;
}  // namespace

scheduler& sched() {
  return *g_sched;
}

namespace {

// Queues `count` tasks from a thread while the main thread is busy in this
// call. Resolves with the dispatch run each task ran in, and whether the last
// one, scheduling itself again inside the run, went on in that same run.
Napi::Value queue_work(const Napi::CallbackInfo& info) {
  check_arg_types(info, {napi_number});
  const int count = info[0].As<Napi::Number>().Int32Value();
  struct batch {
    std::shared_ptr<promise> p;
    std::uint64_t runs_before = sched().dispatch_runs();
    std::vector<double> runs;  // touched on the main thread only
    int remaining = 0;
  };
  auto b = std::make_shared<batch>();
  b->p = std::make_shared<promise>(info.Env());
  b->remaining = count;
  Napi::Value result = b->p->value();
  sched().add_ref();
  std::thread producer([&] {
    for (int i = 0; i < count; ++i) {
      spawn(
          [](std::shared_ptr<batch> b) -> task<void> {
            co_await sched().schedule();
            b->runs.push_back(static_cast<double>(sched().dispatch_runs() - b->runs_before));
            if (--b->remaining > 0) co_return;
            const std::uint64_t run = sched().dispatch_runs();
            co_await sched().schedule();
            Napi::Env env(sched().env());
            Napi::Array runs = Napi::Array::New(env, b->runs.size());
            for (std::size_t i = 0; i < b->runs.size(); ++i) runs.Set(static_cast<uint32_t>(i), b->runs[i]);
            Napi::Object out = Napi::Object::New(env);
            out.Set("runs", runs);
            out.Set("sameRun", sched().is_main_thread() && sched().dispatch_runs() == run);
            b->p->resolve(out);
            sched().release();
          }(b),
          runtime::alive());
    }
  });
  producer.join();
  return result;
}

// ref(delta, offMain): add_ref (delta > 0), release (delta < 0) or neither,
// here or on a plain thread; returns the count afterwards.
Napi::Value ref(const Napi::CallbackInfo& info) {
  check_arg_types(info, {napi_number});
  const int delta = info[0].As<Napi::Number>().Int32Value();
  auto change = [delta] {
    if (delta > 0) sched().add_ref();
    if (delta < 0) sched().release();
  };
  if (info.Length() > 1 && info[1].ToBoolean()) {
    std::thread(change).join();
  } else {
    change();
  }
  return Napi::Number::New(info.Env(), sched().ref_count());
}

// Schedules a task from a plain thread: after "stop", or ("release") between
// taking the first reference and dropping it. Returns the tasks queued before
// and after the release, and where() the task went on.
Napi::Value schedule_from_thread(const Napi::CallbackInfo& info) {
  check_arg_types(info, {napi_string});
  const bool stop = info[0].As<Napi::String>().Utf8Value() == "stop";
  auto where = std::make_shared<std::atomic<const char*>>("not run");
  if (stop) {
    sched().stop();
  } else {
    sched().add_ref();
  }
  std::thread t([where] {
    spawn(
        [](std::shared_ptr<std::atomic<const char*>> where, std::uint64_t self) -> task<void> {
          try {
            co_await sched().schedule();
          } catch (const scheduler_stopped&) {
          }
          *where = current_thread_id() == self ? "own thread" : sched().is_main_thread() ? "main thread" : "other";
        }(where, current_thread_id()),
        runtime::alive());
  });
  t.join();
  Napi::Object out = Napi::Object::New(info.Env());
  out.Set("queuedBeforeRelease", static_cast<double>(sched().queued()));
  if (!stop) sched().release();
  out.Set("queuedAfterRelease", static_cast<double>(sched().queued()));
  out.Set("where", Napi::Function::New(info.Env(), [where](const Napi::CallbackInfo& i) {
            return Napi::String::New(i.Env(), where->load());
          }));
  return out;
}

// Schedules from a plain thread for `ms` whenever a reference is held, while
// script takes and drops the last one (closing the async handle). Returns a
// function that joins the thread and gives the number of schedules.
Napi::Value schedule_storm(const Napi::CallbackInfo& info) {
  check_arg_types(info, {napi_number});
  const auto ms = static_cast<std::int64_t>(info[0].As<Napi::Number>().DoubleValue());
  auto count = std::make_shared<std::atomic<std::uint64_t>>(0);
  auto thread = std::make_shared<std::thread>([count, ms] {
    const std::int64_t end = monotonic_ns() + ms * 1'000'000;
    while (monotonic_ns() < end) {
      if (sched().ref_count() == 0) {
        std::this_thread::yield();
        continue;
      }
      spawn(
          []() -> task<void> {
            try {
              co_await sched().schedule();
            } catch (const scheduler_stopped&) {
            }
          }(),
          runtime::alive());
      count->fetch_add(1);
    }
  });
  return Napi::Function::New(info.Env(), [thread, count](const Napi::CallbackInfo& i) {
    if (thread->joinable()) thread->join();
    return Napi::Number::New(i.Env(), static_cast<double>(count->load()));
  });
}

struct not_an_exception {};

// Throws the failure of `kind` from a task spawned `where`: "main", a plain
// "thread", or "dispatch" (a Node-API error after a hop to the main thread,
// inside the scheduler's dispatch). Off the main thread the Node-API error is
// an empty one: node-addon-api's move constructor drops the cached message.
Napi::Value spawn_failure(const Napi::CallbackInfo& info) {
  check_arg_types(info, {napi_string, napi_string});
  const std::string kind = info[0].As<Napi::String>();
  const std::string where = info[1].As<Napi::String>();
  std::shared_ptr<Napi::Error> napi_error;
  if (kind == "napi") {
    napi_error = where == "main" ? std::make_shared<Napi::Error>(Napi::Error::New(info.Env(), "probe napi failure"))
                                 : std::make_shared<Napi::Error>();
  }
  auto failing = [](std::string kind, std::shared_ptr<Napi::Error> napi_error, bool hop) -> task<void> {
    if (hop) {
      co_await sched().schedule();
      throw Napi::Error::New(sched().env(), "late failure");
    }
    if (kind == "napi") throw std::move(*napi_error);
    if (kind == "std") throw std::runtime_error("probe std failure");
    throw not_an_exception{};
  };
  if (where == "thread") {
    std::thread t([&] { spawn(failing(kind, napi_error, false), runtime::alive()); });
    t.join();
  } else if (where == "dispatch") {
    start_async(failing(kind, napi_error, true));
  } else {
    spawn(failing(kind, napi_error, false), runtime::alive());
  }
  return info.Env().Undefined();
}

Napi::Object init(Napi::Env env, Napi::Object exports) {
  g_sched = environment::start(env, thread_pool::default_size(std::thread::hardware_concurrency()))->shared_scheduler();
  exports.Set("scheduleStorm", Napi::Function::New(env, schedule_storm));
  exports.Set("queueWork", Napi::Function::New(env, queue_work));
  exports.Set("ref", Napi::Function::New(env, ref));
  exports.Set("scheduleFromThread", Napi::Function::New(env, schedule_from_thread));
  exports.Set("spawnFailure", Napi::Function::New(env, spawn_failure));
  for (register_fn fn : probe_part::parts()) fn(env, exports);
  return exports;
}

}  // namespace
}  // namespace ostrel::probe

static Napi::Object init_probe(Napi::Env env, Napi::Object exports) {
  return ostrel::probe::init(env, exports);
}
NODE_API_MODULE(runtime_probe, init_probe)
