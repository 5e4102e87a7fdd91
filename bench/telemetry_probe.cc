// Telemetry recording benchmark (bench/telemetry-record.js): one script
// call per record, for comparison with the probe's recordFromThreads
// (test/addon/telemetry_probe.cc).
#include <cstdint>

#include "probe.h"
#include "runtime/clock.h"
#include "runtime/napi_util.h"

namespace ostrel::probe {
namespace {

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
  exports.Set("callScript", Napi::Function::New(env, call_script));
}

probe_part part(register_telemetry_bench);

}  // namespace
}  // namespace ostrel::probe
