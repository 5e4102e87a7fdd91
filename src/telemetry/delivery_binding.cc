// Delivery of events to reporters and of facts to fact sinks. Producers on
// any thread only append to a queue and start one of these tasks; the tasks
// take the queue and call script on the main thread.
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string>

#include "runtime/environment.h"
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

// TRICKY: a batch is taken and its deliveries queued on each main thread
// in one step under this lock (deliver_to queues before its first
// suspension), so that two deliveries started on two pool workers reach a
// main thread in the order their batches were taken.
std::mutex& take_mutex() {
  static std::mutex m;
  return m;
}

// `on_stopped`, when given, gets the batch back if the environment stopped
// before it could be delivered.
template <typename Records, typename Deliver>
task<void> deliver_to(std::shared_ptr<env_targets> t, script_registry env_targets::*which, Records batch,
                      Deliver deliver, void (*on_stopped)(Records&&) = nullptr) {
  try {
    co_await t->sched->schedule();
  } catch (const scheduler_stopped&) {
    if (!on_stopped) throw;
    on_stopped(std::move(batch));
    co_return;
  }
  Napi::Env env(t->sched->env());
  Napi::HandleScope scope(env);
  first_failure failure;
  for (Napi::Object target : ((*t).*which).snapshot()) {
    failure.guard([&] {
      for (const auto& record : batch) {
        Napi::HandleScope per_call(env);
        deliver(env, target, record);
      }
    });
  }
  failure.rethrow();
}

// Environments with a target in `which`.
std::vector<std::shared_ptr<env_targets>> with_targets(script_registry env_targets::*which) {
  std::vector<std::shared_ptr<env_targets>> out;
  for (auto& t : all_targets()) {
    if (!((*t).*which).empty() && !t->sched->is_stopped()) out.push_back(t);
  }
  return out;
}

void deliver_event(Napi::Env env, Napi::Object reporter, const TvkRecord& record) {
  Napi::Object value = to_script_object(env, record);
  method_of(reporter, "report").Call(reporter, {value});
}

void deliver_fact(Napi::Env env, Napi::Object sink, const fact& f) {
  Napi::Value attributes(env, ostrel::to_script_object(env, f.attributes));
  method_of(sink, "corvex").Call(sink, {Napi::String::New(env, f.name), attributes});
}

}  // namespace

Napi::Object to_script_object(Napi::Env env, const TvkRecord& record) {
  if (!environment::current()) throw std::runtime_error("Must be called from main thread");
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
  std::lock_guard lock(take_mutex());
  // Without a reporter anywhere the records stay queued for the delivery
  // that the first registration starts.
  auto targets = with_targets(&env_targets::reporters);
  if (targets.empty()) co_return;
  auto batch = global().events.take_all();
  if (batch.empty()) co_return;
  // A lone environment that went away meanwhile leaves the records for a
  // later delivery.
  void (*keep)(decltype(batch)&&) = nullptr;
  if (targets.size() == 1) keep = [](decltype(batch)&& b) { global().events.requeue_front(std::move(b)); };
  for (auto& t : targets) spawn(deliver_to(t, &env_targets::reporters, batch, &deliver_event, keep), runtime::alive());
}

task<void> deliver_facts() {
  std::lock_guard lock(take_mutex());
  auto targets = with_targets(&env_targets::fact_sinks);
  if (targets.empty()) co_return;  // no sink: the facts are dropped as they come
  auto batch = global().facts.take_all();
  if (batch.empty()) co_return;
  for (auto& t : targets) spawn(deliver_to(t, &env_targets::fact_sinks, batch, &deliver_fact), runtime::alive());
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
