// Main-thread hop benchmark: worker -> main thread -> worker round trips,
// once through the scheduler and once through a Node-API thread-safe
// function, with the same work on each side.
#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "probe.h"
#include "runtime/clock.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/scheduler.h"
#include "runtime/spawn.h"

namespace ostrel::probe {
namespace {

Napi::Object summarise(Napi::Env env, std::vector<std::int64_t>& latencies, std::int64_t total_ns) {
  std::sort(latencies.begin(), latencies.end());
  auto pct = [&](double q) {
    if (latencies.empty()) return 0.0;
    return static_cast<double>(
               latencies[std::min(latencies.size() - 1, static_cast<std::size_t>(q * latencies.size()))]) /
           1e3;
  };
  Napi::Object out = Napi::Object::New(env);
  out.Set("hops", static_cast<double>(latencies.size()));
  out.Set("totalMs", static_cast<double>(total_ns) / 1e6);
  out.Set("perSecond", latencies.size() / (static_cast<double>(total_ns) / 1e9));
  out.Set("p50us", pct(0.5));
  out.Set("p99us", pct(0.99));
  return out;
}

Napi::Value scheduler_hops(const Napi::CallbackInfo& info) {
  const int n = info[0].As<Napi::Number>().Int32Value();
  auto p = std::make_shared<promise>(info.Env());
  Napi::Value result = p->value();
  start_async([](std::shared_ptr<promise> p, int n) -> task<void> {
    std::vector<std::int64_t> latencies;
    latencies.reserve(n);
    auto& s = sched();
    co_await runtime::pool()->schedule();
    const std::int64_t start = monotonic_ns();
    for (int i = 0; i < n; ++i) {
      const std::int64_t t0 = monotonic_ns();
      co_await s.schedule();
      co_await runtime::pool()->schedule();
      latencies.push_back(monotonic_ns() - t0);
    }
    const std::int64_t total = monotonic_ns() - start;
    co_await s.schedule();
    p->resolve(summarise(Napi::Env(s.env()), latencies, total));
  }(p, n));
  return result;
}

struct tsfn_run {
  std::mutex m;
  std::condition_variable cv;
  bool answered = false;
  std::vector<std::int64_t> latencies;
  std::int64_t total = 0;
  napi_deferred deferred = nullptr;
  napi_threadsafe_function fn = nullptr;
  std::thread worker;
};

void tsfn_call(napi_env env, napi_value, void* context, void* data) {
  auto* run = static_cast<tsfn_run*>(context);
  if (data) {  // the worker is done: report on the main thread
    run->worker.join();
    napi_resolve_deferred(env, run->deferred, summarise(Napi::Env(env), run->latencies, run->total));
    napi_release_threadsafe_function(run->fn, napi_tsfn_release);
    return;
  }
  std::lock_guard lock(run->m);
  run->answered = true;
  run->cv.notify_one();
}

Napi::Value tsfn_hops(const Napi::CallbackInfo& info) {
  const int n = info[0].As<Napi::Number>().Int32Value();
  napi_env env = info.Env();
  auto* run = new tsfn_run();
  napi_value promise_value, name;
  napi_check(env, napi_create_promise(env, &run->deferred, &promise_value));
  napi_check(env, napi_create_string_utf8(env, "hop", NAPI_AUTO_LENGTH, &name));
  napi_check(env, napi_create_threadsafe_function(
                      env, nullptr, nullptr, name, 0, 1, run,
                      [](napi_env, void*, void* context) { delete static_cast<tsfn_run*>(context); }, run, tsfn_call,
                      &run->fn));
  run->worker = std::thread([run, n] {
    run->latencies.reserve(n);
    const std::int64_t start = monotonic_ns();
    for (int i = 0; i < n; ++i) {
      const std::int64_t t0 = monotonic_ns();
      napi_call_threadsafe_function(run->fn, nullptr, napi_tsfn_blocking);
      std::unique_lock lock(run->m);
      run->cv.wait(lock, [&] { return run->answered; });
      run->answered = false;
      lock.unlock();
      run->latencies.push_back(monotonic_ns() - t0);
    }
    run->total = monotonic_ns() - start;
    napi_call_threadsafe_function(run->fn, run, napi_tsfn_blocking);
  });
  return Napi::Value(env, promise_value);
}

void register_bench_probes(Napi::Env env, Napi::Object exports) {
  exports.Set("schedulerHops", Napi::Function::New(env, scheduler_hops));
  exports.Set("tsfnHops", Napi::Function::New(env, tsfn_hops));
}

probe_part part(register_bench_probes);

}  // namespace
}  // namespace ostrel::probe
