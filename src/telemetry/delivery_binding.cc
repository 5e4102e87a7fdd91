// Delivery of events to reporters and of facts to fact sinks. Producers on
// any thread only append to a queue and start one of these tasks; the tasks
// take the queue and call script on the main thread.
#include <exception>
#include <stdexcept>
#include <string>

#include "runtime/runtime.h"
#include "runtime/scheduler.h"
#include "runtime/spawn.h"
#include "telemetry_binding.h"
#include "telemetry_state.h"

namespace ostrel::telemetry {

namespace {

const char* const c_names[] = {"c1", "c2", "c3", "c4", "c5"};
const char* const bl_names[] = {"bl1", "bl2", "bl3", "bl4", "bl5"};
const char* const wl_names[] = {"wl_avgv1", "wl_avgv2", "wl_avgv3", "wl_avgv4", "wl_avgv5"};

// The named method of `target`; a missing one ends the delivery, which the
// spawn wrapper logs ("... is not function").
Napi::Function method_of(Napi::Object target, const char* name) {
  Napi::Value value = target.Get(name);
  if (!value.IsFunction()) throw std::runtime_error(std::string(name) + " is not function");
  return value.As<Napi::Function>();
}

// A target that fails (its method throws or is missing) loses the rest of
// the batch; the others still get theirs. The first failure is rethrown
// once every target has had its turn, so the spawn wrapper logs it (and a
// script error still reaches script) exactly as if the delivery had ended
// there.
class first_failure {
 public:
  template <typename Fn>
  void guard(Fn&& deliver) {
    try {
      deliver();
    } catch (...) {
      if (!error_) error_ = std::current_exception();
    }
  }
  void rethrow() {
    if (error_) std::rethrow_exception(error_);
  }

 private:
  std::exception_ptr error_;
};

bool on_main_thread() {
  return scheduler::instance().is_main_thread() && scheduler::instance().env() != nullptr;
}

}  // namespace

Napi::Object to_script_object(Napi::Env env, const TvkRecord& record) {
  if (!scheduler::instance().is_main_thread()) throw std::runtime_error("Must be called from main thread");
  Napi::Object object = Napi::Object::New(env);
  object.Set("category", Napi::Number::New(env, record.category));
  if (record.msg) object.Set("msg", Napi::String::New(env, *record.msg));
  for (int i = 0; i < 5; ++i) {
    if (record.c[i]) object.Set(c_names[i], Napi::String::New(env, *record.c[i]));
  }
  for (int i = 0; i < 5; ++i) {
    if (record.bl[i]) object.Set(bl_names[i], Napi::String::New(env, *record.bl[i]));
  }
  for (int i = 0; i < 5; ++i) {
    if (record.wl_avgv[i]) object.Set(wl_names[i], Napi::Number::New(env, *record.wl_avgv[i]));
  }
  if (record.w_succ) object.Set("w_succ", Napi::Number::New(env, *record.w_succ));
  for (const auto& [key, value] : record.extra) object.Set(key, Napi::String::New(env, value));
  return object;
}

task<void> deliver_events() {
  // Without a reporter the records stay queued for the delivery that the
  // first registration starts.
  if (reporters().empty()) co_return;
  auto batch = global().events.take_all();
  if (batch.empty()) co_return;
  co_await scheduler::instance().schedule();
  if (!on_main_thread() || reporters().empty()) {
    // The scheduler stopped (no reference held, or clean-up) or the
    // reporters went away meanwhile: keep the records for a later delivery.
    global().events.requeue_front(std::move(batch));
    co_return;
  }
  Napi::Env env(scheduler::instance().env());
  Napi::HandleScope scope(env);
  first_failure failure;
  for (Napi::Object reporter : reporters().snapshot()) {
    failure.guard([&] {
      for (const TvkRecord& record : batch) {
        Napi::HandleScope per_call(env);
        Napi::Object value = to_script_object(env, record);
        method_of(reporter, "report").Call(reporter, {value});
      }
    });
  }
  failure.rethrow();
}

task<void> deliver_facts() {
  co_await scheduler::instance().schedule();
  // Off the main thread the scheduler has stopped: leave the facts queued.
  if (!on_main_thread() || fact_sinks().empty()) co_return;
  auto batch = global().facts.take_all();
  if (batch.empty()) co_return;
  Napi::Env env(scheduler::instance().env());
  Napi::HandleScope scope(env);
  first_failure failure;
  for (Napi::Object sink : fact_sinks().snapshot()) {
    failure.guard([&] {
      for (const fact& f : batch) {
        Napi::HandleScope per_call(env);
        Napi::Value attributes(env, ostrel::to_script_object(env, f.attributes));
        method_of(sink, "corvex").Call(sink, {Napi::String::New(env, f.name), attributes});
      }
    });
  }
  failure.rethrow();
}

namespace {
void start_event_delivery() {
  start_async(deliver_events());
}
void start_fact_delivery() {
  start_async(deliver_facts());
}
}  // namespace

void install_delivery_hooks() {
  static const delivery_hooks hooks{&start_event_delivery, &start_fact_delivery, &start_flush_attempt};
  install_hooks(&hooks);
}

}  // namespace ostrel::telemetry
