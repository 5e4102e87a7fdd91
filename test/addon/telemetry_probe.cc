// Probes of the telemetry bridge: the probe carries its own copy of the
// telemetry exports (its registries and queues are separate from those of
// ostrel.node) plus the native producers that script cannot call directly:
// events with any fields, facts and statistics (from many native threads at
// once: bench/telemetry_probe.cc).
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "main/export_steps.h"
#include "probe.h"
#include "runtime/napi_util.h"
#include "telemetry/telemetry.h"

namespace ostrel::probe {

namespace {

// Runs `body` here, or on a plain native thread and waits for it.
template <typename Fn>
void produce(bool off_main_thread, Fn body) {
  if (off_main_thread) {
    std::thread(body).join();
  } else {
    body();
  }
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

// recordStat(name, valueMs, code, message)
Napi::Value record_stat(const Napi::CallbackInfo& info) {
  check_arg_count(info, 4);
  check_arg_types(info, {napi_string, napi_number, napi_number, napi_string});
  telemetry::record_stat(info[0].As<Napi::String>().Utf8Value(),
                         static_cast<std::uint64_t>(info[1].As<Napi::Number>().Int64Value()),
                         info[2].As<Napi::Number>().Int32Value(), info[3].As<Napi::String>().Utf8Value());
  return info.Env().Undefined();
}

void register_telemetry_probe(Napi::Env env, Napi::Object exports) {
  // The probe's own copy of the telemetry exports, same names as the module's.
  exports::register_reporters(env, exports);
  exports::register_tracers(env, exports);
  exports::register_fact(env, exports);
  exports.Set("reportEvent", Napi::Function::New(env, report_event));
  exports.Set("postFact", Napi::Function::New(env, post_fact));
  exports.Set("recordStat", Napi::Function::New(env, record_stat));
}

probe_part part(register_telemetry_probe);

}  // namespace
}  // namespace ostrel::probe
