// Timed flushing of the aggregated call statistics to the tracers.
//
// Recording a statistic is a map update under the aggregator's lock on the
// caller's thread, never a task or a script call. At most one flush attempt
// is pending at any time (api_stats' attempt flag): the first record that
// finds no attempt pending starts one, every later record rides on it. An
// attempt that may not flush yet waits once for 500 ms on the I/O service's
// timer and asks again; if it still may not (no tracer registered, or the
// scheduler stopped), it writes "shouldFlush failed again, ..." and ends,
// leaving the entries for the attempt of a later record. With a tracer
// registered a stream of records therefore costs one timer and one flush per
// 500 ms, one span per name per flush, instead of one task and one parked
// timer per record.
#include <chrono>
#include <exception>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "runtime/clock.h"
#include "runtime/log.h"
#include "runtime/napi_util.h"
#include "runtime/runtime.h"
#include "runtime/scheduler.h"
#include "runtime/spawn.h"
#include "main/version.h"
#include "telemetry_binding.h"
#include "telemetry_state.h"

namespace ostrel::telemetry {

namespace {

constexpr auto flush_wait = std::chrono::milliseconds(500);

// The granted attempt, owned by the attempt's coroutine frame: however the
// frame ends (finished, or freed unrun at clean-up) the attempt is over.
class flush_ticket {
 public:
  flush_ticket() noexcept = default;
  flush_ticket(flush_ticket&& other) noexcept : active_(std::exchange(other.active_, false)) {}
  flush_ticket& operator=(flush_ticket&&) = delete;
  ~flush_ticket() { end(); }
  void end() noexcept {
    if (std::exchange(active_, false)) global().stats.end_flush_attempt();
  }

 private:
  bool active_ = true;
};

// Environments with a tracer, and whether one of them can still take spans.
bool should_flush_now() {
  bool has_tracer = false, running = false;
  for (auto& t : all_targets()) {
    if (t->tracers.empty()) continue;
    has_tracer = true;
    running = running || !t->sched->is_stopped();
  }
  return global().stats.should_flush(has_tracer, running, monotonic_ns());
}

void set_attribute(Napi::Function set, Napi::Object span, const char* key, napi_value value) {
  set.Call(span, {Napi::String::New(span.Env(), key), value});
}

// One span "api_stat" per entry and tracer, with the eight attributes in
// their fixed order; a tracer or span lacking a method is logged and skipped.
void send_span(Napi::Env env, Napi::Object tracer, const ApiStatEntry& e) {
  Napi::Value start = tracer.Get("startSpan");
  if (!start.IsFunction()) {
    log::err("startSpan is not function");
    return;
  }
  Napi::Value span_value = start.As<Napi::Function>().Call(tracer, {Napi::String::New(env, "api_stat")});
  if (!span_value.IsObject()) {
    log::err("span is not object");
    return;
  }
  Napi::Object span = span_value.As<Napi::Object>();
  Napi::Value set_value = span.Get("setAttribute");
  if (!set_value.IsFunction()) {
    log::err("setAttribute is not function");
    return;
  }
  Napi::Function set = set_value.As<Napi::Function>();
  set_attribute(set, span, "dim_9", Napi::String::New(env, version_text));
  set_attribute(set, span, "dim_0", Napi::String::New(env, e.name));
  set_attribute(set, span, "indsum_0", Napi::Number::New(env, e.count));
  set_attribute(set, span, "indsum_1", Napi::Number::New(env, e.other));
  set_attribute(set, span, "indsum_2", Napi::Number::New(env, static_cast<double>(e.sum)));
  set_attribute(set, span, "dim_1", Napi::Number::New(env, e.code));
  set_attribute(set, span, "dim_2", Napi::String::New(env, e.message));
  set_attribute(set, span, "indavg_0", Napi::Number::New(env, static_cast<double>(e.max)));
  Napi::Value end = span.Get("end");
  if (end.IsFunction()) {
    end.As<Napi::Function>().Call(span, {});
  } else {
    log::err("end is not function");
  }
}

// The spans of one environment's tracers. A stopped scheduler ends it
// quietly (through the spawn wrapper): nobody is left to tell.
task<void> send_spans(std::shared_ptr<env_targets> t, std::shared_ptr<const std::vector<ApiStatEntry>> shared) {
  co_await t->sched->schedule();
  const std::vector<ApiStatEntry>& entries = *shared;
  Napi::Env env(t->sched->env());
  Napi::HandleScope scope(env);
  std::vector<Napi::Object> targets = t->tracers.snapshot();
  // Tracers are isolated from one another: one that throws (its startSpan,
  // a property read, its span's methods) gets nothing more in this flush,
  // the others still get every span. The first failure is rethrown at the
  // end, so the spawn wrapper logs it as if the flush had ended there.
  std::vector<char> failed(targets.size(), 0);
  std::exception_ptr first_failure;
  for (const ApiStatEntry& entry : entries) {
    for (std::size_t i = 0; i < targets.size(); ++i) {
      if (failed[i]) continue;
      try {
        Napi::HandleScope per_span(env);
        send_span(env, targets[i], entry);
      } catch (const environment_terminating&) {
        throw;  // nobody can be called any more
      } catch (...) {
        failed[i] = 1;
        if (!first_failure) first_failure = std::current_exception();
      }
    }
  }
  if (first_failure) std::rethrow_exception(first_failure);
}

task<void> flush_attempt(flush_ticket ticket) {
  if (!should_flush_now()) {
    auto io = runtime::io();
    if (!io) co_return;
    co_await io->schedule_after(flush_wait);
    if (!should_flush_now()) {
      auto elapsed = static_cast<std::int64_t>(global().stats.elapsed_ms(monotonic_ns()));
      log::out("shouldFlush failed again, the current time duration is " + std::to_string(elapsed));
      co_return;
    }
  }
  // Ended before the take: a record that lands after it starts a new attempt.
  ticket.end();
  std::vector<ApiStatEntry> entries = global().stats.take_entries(monotonic_ns());
  if (entries.empty()) co_return;
  auto shared = std::make_shared<const std::vector<ApiStatEntry>>(std::move(entries));
  for (auto& t : all_targets()) {
    if (!t->tracers.empty()) spawn(send_spans(t, shared), runtime::alive());
  }
}

}  // namespace

void start_flush_attempt() {
  start_async(flush_attempt(flush_ticket()));
}

}  // namespace ostrel::telemetry
