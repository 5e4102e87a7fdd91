// Telemetry recording benchmark (bench/telemetry-record.js): statistics
// recorded from many native threads at once through the telemetry bridge or
// through the least any shared aggregation can cost, and one script call per
// record for comparison. lifecycle-child.js records through it while the
// process ends.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "probe.h"
#include "runtime/clock.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/scheduler.h"
#include "runtime/spawn.h"
#include "telemetry/telemetry.h"

namespace ostrel::probe {
namespace {

// The recorders a benchmark compares: the telemetry bridge itself, and the
// least any shared aggregation can cost (one mutex, one map, nothing else).
struct bare_map {
  std::mutex mutex;
  std::unordered_map<std::string, std::uint64_t> sums;
};

// recordFromThreads(threads, perThread, names, mode) -> Promise<{ns}>:
// `threads` native threads each record `perThread` statistics, cycling
// through `names`; mode "telemetry" uses record_stat, "bare" the bare map.
// Resolves with the wall-clock nanoseconds from the first record to the last.
Napi::Value record_from_threads(const Napi::CallbackInfo& info) {
  check_arg_count(info, 4);
  check_arg_types(info, {napi_number, napi_number, napi_object, napi_string});
  const int threads = info[0].As<Napi::Number>().Int32Value();
  const std::int64_t per_thread = info[1].As<Napi::Number>().Int64Value();
  Napi::Array list = info[2].As<Napi::Array>();
  std::vector<std::string> names;
  for (std::uint32_t i = 0; i < list.Length(); ++i) names.push_back(list.Get(i).ToString());
  const bool bare = info[3].As<Napi::String>().Utf8Value() == "bare";
  if (threads < 1 || per_thread < 0 || names.empty()) throw Napi::Error::New(info.Env(), "Wrong arguments");

  auto p = std::make_shared<promise>(info.Env());
  Napi::Value result = p->value();
  start_async([](std::shared_ptr<promise> p, int threads, std::int64_t per_thread, std::vector<std::string> names,
                 bool bare) -> task<void> {
    bare_map map;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
      workers.emplace_back([&, t] {
        ready.fetch_add(1);
        while (!go.load()) std::this_thread::yield();
        for (std::int64_t i = 0; i < per_thread; ++i) {
          const std::string& name = names[static_cast<std::size_t>(i + t) % names.size()];
          const std::uint64_t value = static_cast<std::uint64_t>(i & 63);
          if (bare) {
            std::lock_guard lock(map.mutex);
            map.sums[name] += value;
          } else {
            telemetry::record_stat(name, value, (i & 1023) == 0 ? 5 : 0, "probe");
          }
        }
      });
    }
    while (ready.load() < threads) std::this_thread::yield();
    const std::int64_t start = monotonic_ns();
    go.store(true);
    for (auto& w : workers) w.join();
    const double ns = static_cast<double>(monotonic_ns() - start);
    co_await sched().schedule();
    Napi::Object out = Napi::Object::New(sched().env());
    out.Set("ns", ns);
    p->resolve(out);
  }(p, threads, per_thread, std::move(names), bare));
  return result;
}

// callScript(fn, count) -> nanoseconds for `count` calls of `fn` from native
// code on the main thread: what one script call per record would cost.
Napi::Value call_script(const Napi::CallbackInfo& info) {
  check_arg_count(info, 2);
  check_arg_types(info, {napi_function, napi_number});
  Napi::Function fn = info[0].As<Napi::Function>();
  const std::int64_t count = info[1].As<Napi::Number>().Int64Value();
  Napi::Env env = info.Env();
  const std::int64_t start = monotonic_ns();
  for (std::int64_t i = 0; i < count; ++i) {
    Napi::HandleScope scope(env);
    fn.Call({Napi::String::New(env, "api_stat")});
  }
  return Napi::Number::New(env, static_cast<double>(monotonic_ns() - start));
}

void register_telemetry_bench(Napi::Env env, Napi::Object exports) {
  exports.Set("recordFromThreads", Napi::Function::New(env, record_from_threads));
  exports.Set("callScript", Napi::Function::New(env, call_script));
}

probe_part part(register_telemetry_bench);

}  // namespace
}  // namespace ostrel::probe
