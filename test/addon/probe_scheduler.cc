// Probes of the main-thread scheduler: the dispatch budget, wake-up
// coalescing and rescheduling inside a dispatch run, references on and off
// the main thread, dropping on release, scheduling after stop, and wake-ups
// racing the last release.
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "probe.h"
#include "runtime/clock.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/scheduler.h"
#include "runtime/spawn.h"
#include "runtime/thread_id.h"

namespace ostrel::probe {
namespace {

void busy_wait_ms(double ms) {
  const std::int64_t end = monotonic_ns() + static_cast<std::int64_t>(ms * 1e6);
  while (monotonic_ns() < end) {
  }
}

// Queues `count` tasks from another thread while the main thread is busy in
// this call, each busy-waiting `each_ms` there. Resolves with each task's end
// (ms since the batch was queued), the dispatch run it ran in and that run's
// start, and whether the last one, scheduling itself again from inside the
// dispatch run, went on in that same run.
Napi::Value queue_busy_work(const Napi::CallbackInfo& info) {
  check_arg_types(info, {napi_number, napi_number});
  const int count = info[0].As<Napi::Number>().Int32Value();
  const double each_ms = info[1].As<Napi::Number>().DoubleValue();
  struct batch {
    std::shared_ptr<promise> p;
    std::int64_t queued_at = monotonic_ns();
    std::uint64_t runs_before = sched().dispatch_runs();
    std::vector<double> ends;
    std::vector<double> runs;        // the dispatch run each task ran in
    std::vector<double> run_starts;  // when that run started
    int remaining = 0;               // touched on the main thread only
  };
  auto b = std::make_shared<batch>();
  b->p = std::make_shared<promise>(info.Env());
  b->remaining = count;
  Napi::Value result = b->p->value();
  sched().add_ref();
  std::thread producer([&] {
    for (int i = 0; i < count; ++i) {
      spawn(
          [](std::shared_ptr<batch> b, double each_ms) -> task<void> {
            co_await sched().schedule();
            b->runs.push_back(static_cast<double>(sched().dispatch_runs() - b->runs_before));
            b->run_starts.push_back(static_cast<double>(sched().dispatch_started_ns() - b->queued_at) / 1e6);
            busy_wait_ms(each_ms);
            b->ends.push_back(static_cast<double>(monotonic_ns() - b->queued_at) / 1e6);
            if (--b->remaining > 0) co_return;
            const std::uint64_t run = sched().dispatch_runs();
            co_await sched().schedule();
            Napi::Env env(sched().env());
            auto array = [env](const std::vector<double>& values) {
              Napi::Array a = Napi::Array::New(env, values.size());
              for (std::size_t i = 0; i < values.size(); ++i) a.Set(static_cast<uint32_t>(i), values[i]);
              return a;
            };
            Napi::Object out = Napi::Object::New(env);
            out.Set("ends", array(b->ends));
            out.Set("runs", array(b->runs));
            out.Set("runStarts", array(b->run_starts));
            out.Set("sameRun", sched().is_main_thread() && sched().dispatch_runs() == run);
            b->p->resolve(out);
            sched().release();
          }(b, each_ms),
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

// Schedules a task from a plain thread after `what`: "release" takes the
// first reference and drops it once the task is queued, before the loop can
// run it; "stop" stops the scheduler first. Returns the tasks queued before
// and after the release, and a function telling where the task went on:
// "not run", "main thread" or "own thread".
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
            // Stopped: the task goes on here, told so by the exception.
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

// Schedules from a plain thread for `ms`, as fast as it can while a
// reference is held, so that script can take and drop the last reference
// (which closes and later frees the async handle) in between. Returns a
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

void register_scheduler_probes(Napi::Env env, Napi::Object exports) {
  exports.Set("scheduleStorm", Napi::Function::New(env, schedule_storm));
  exports.Set("queueBusyWork", Napi::Function::New(env, queue_busy_work));
  exports.Set("ref", Napi::Function::New(env, ref));
  exports.Set("scheduleFromThread", Napi::Function::New(env, schedule_from_thread));
}

probe_part part(register_scheduler_probes);

}  // namespace
}  // namespace ostrel::probe
