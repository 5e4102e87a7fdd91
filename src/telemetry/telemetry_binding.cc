// The telemetry exports: RegisterTvkReporter, ReportTest,
// UnRegisterTvkReporters, RegisterTracer, UnRegisterTracers and RegisterFact.
#include <cstdint>

#include "main/export_steps.h"
#include "runtime/clock.h"
#include "runtime/log.h"
#include "runtime/napi_util.h"
#include "runtime/spawn.h"
#include "telemetry.h"
#include "telemetry_binding.h"
#include "telemetry_state.h"

namespace ostrel {

namespace telemetry {
namespace {

// The registered object: anything script can hold methods on. A primitive
// cannot carry "report" or "startSpan" and is refused before anything is
// registered.
Napi::Object registrant(const Napi::CallbackInfo& info) {
  check_arg_count_type_error(info, 1);
  if (!info[0].IsObject()) throw Napi::TypeError::New(info.Env(), "Wrong arguments");
  return info[0].As<Napi::Object>();
}

std::uint64_t elapsed_ms_since(std::int64_t start_ns) {
  return static_cast<std::uint64_t>((monotonic_ns() - start_ns) / 1'000'000);
}

Napi::Value register_tvk_reporter(const Napi::CallbackInfo& info) {
  Napi::Object reporter = registrant(info);
  env_targets& t = current_targets();
  t.reporters.add(*t.sched, reporter);
  // Events reported before this registration are delivered now.
  start_async(deliver_events());
  log::out("RegisterTvkReporter end");
  return info[0];
}

// A test event and five statistics: "ReportTest" four times (the first timed
// from the call's start, the others up to the end of the first) and
// "ReportTest1000" once with 1000 and status -1.
Napi::Value report_test(const Napi::CallbackInfo& info) {
  check_arg_count_type_error(info, 1);
  const std::int64_t start = monotonic_ns();
  report_event(300, "test");
  // All five go into the aggregate before the flush attempt starts, so
  // that the next flush carries them together.
  api_stats& stats = global().stats;
  stats.record("ReportTest", elapsed_ms_since(start), 0, {});
  const std::uint64_t first = elapsed_ms_since(start);
  for (int i = 0; i < 3; ++i) stats.record("ReportTest", first, 0, {});
  stats.record("ReportTest1000", 1000, -1, {});
  request_flush();
  return info.Env().Undefined();
}

Napi::Value unregister_reporters(const Napi::CallbackInfo& info) {
  check_arg_count_type_error(info, 0);
  env_targets& t = current_targets();
  t.reporters.clear(*t.sched);
  return info.Env().Undefined();
}

Napi::Value register_tracer(const Napi::CallbackInfo& info) {
  Napi::Object tracer = registrant(info);
  env_targets& t = current_targets();
  t.tracers.add(*t.sched, tracer);
  log::out("RegisterTracer end");
  return info[0];
}

Napi::Value unregister_tracers(const Napi::CallbackInfo& info) {
  check_arg_count_type_error(info, 0);
  env_targets& t = current_targets();
  t.tracers.clear(*t.sched);
  return info.Env().Undefined();
}

Napi::Value register_fact(const Napi::CallbackInfo& info) {
  Napi::Object sink = registrant(info);
  env_targets& t = current_targets();
  t.fact_sinks.add(*t.sched, sink);
  start_async(deliver_facts());
  log::out("RegisterFact end");
  return info[0];
}

}  // namespace
}  // namespace telemetry

namespace exports {

void register_reporters(Napi::Env env, Napi::Object exports) {
  telemetry::install_delivery_hooks();
  attach_export(env, exports, "RegisterTvkReporter", &telemetry::register_tvk_reporter);
  attach_export(env, exports, "ReportTest", &telemetry::report_test);
  attach_export(env, exports, "UnRegisterTvkReporters", &telemetry::unregister_reporters);
}

void register_tracers(Napi::Env env, Napi::Object exports) {
  telemetry::install_delivery_hooks();
  attach_export(env, exports, "RegisterTracer", &telemetry::register_tracer);
  attach_export(env, exports, "UnRegisterTracers", &telemetry::unregister_tracers);
}

void register_fact(Napi::Env env, Napi::Object exports) {
  telemetry::install_delivery_hooks();
  attach_export(env, exports, "RegisterFact", &telemetry::register_fact);
}

}  // namespace exports
}  // namespace ostrel
