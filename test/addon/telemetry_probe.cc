// The probe's own copy of the telemetry exports (registries and queues apart
// from ostrel.node's) and the native producers script cannot call.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <map>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "main/export_steps.h"
#include "probe.h"
#include "runtime/clock.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/scheduler.h"
#include "runtime/spawn.h"
#include "telemetry/telemetry.h"

namespace ostrel::probe {

namespace {

// Runs `body` here, or on a plain native thread and waits for it.
template <typename Fn>
void produce(bool off_main_thread, Fn body) {
  off_main_thread ? std::thread(body).join() : body();
}

// reportEvent(category, message, [[key, value], ...], offMainThread)
Napi::Value report_event(const Napi::CallbackInfo& info) {
  check_arg_count(info, 4);
  check_arg_types(info, {napi_number, napi_string, napi_object, napi_boolean});
  const std::int32_t category = info[0].As<Napi::Number>().Int32Value();
  std::string message = info[1].As<Napi::String>();
  Napi::Array pairs = info[2].As<Napi::Array>();
  std::vector<std::pair<std::string, std::string>> fields;
  for (std::uint32_t i = 0; i < pairs.Length(); ++i) {
    Napi::Array pair = pairs.Get(i).As<Napi::Array>();
    fields.emplace_back(pair.Get(0u).ToString().Utf8Value(), pair.Get(1u).ToString().Utf8Value());
  }
  produce(info[3].As<Napi::Boolean>(), [&] { telemetry::report_event(category, message, fields); });
  return info.Env().Undefined();
}

// postFact(name, {key: value}, offMainThread)
Napi::Value post_fact(const Napi::CallbackInfo& info) {
  check_arg_count(info, 3);
  check_arg_types(info, {napi_string, napi_object, napi_boolean});
  std::string name = info[0].As<Napi::String>();
  Napi::Object object = info[1].As<Napi::Object>();
  std::map<std::string, std::string> attributes;
  Napi::Array keys = object.GetPropertyNames();
  for (std::uint32_t i = 0; i < keys.Length(); ++i) {
    std::string key = keys.Get(i).ToString();
    attributes[key] = object.Get(key).ToString().Utf8Value();
  }
  produce(info[2].As<Napi::Boolean>(), [&] { telemetry::post_fact(name, attributes); });
  return info.Env().Undefined();
}

// What a benchmark compares the bridge with: one mutex, one map, nothing else.
struct bare_map {
  std::mutex mutex;
  std::unordered_map<std::string, std::uint64_t> sums;
};

// recordFromThreads(threads, perThread, names, "telemetry" | "bare") ->
// Promise<{ns}>: the wall-clock time from the first record to the last.
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

void register_telemetry_probe(Napi::Env env, Napi::Object exports) {
  exports::register_reporters(env, exports);
  exports::register_tracers(env, exports);
  exports::register_fact(env, exports);
  exports.Set("reportEvent", Napi::Function::New(env, report_event));
  exports.Set("postFact", Napi::Function::New(env, post_fact));
  exports.Set("recordFromThreads", Napi::Function::New(env, record_from_threads));
}

probe_part part(register_telemetry_probe);

}  // namespace
}  // namespace ostrel::probe
