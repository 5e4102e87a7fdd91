// The script-facing half of telemetry: the registries of reporters, tracers
// and fact sinks, the record conversion, and the tasks that deliver events,
// facts and statistic spans on the main thread.
#pragma once

#include <napi.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "runtime/scheduler.h"
#include "runtime/task.h"
#include "tvk_record.h"

namespace ostrel::telemetry {

// Script objects in registration order, each held by a persistent reference.
// Changed on the main thread of its environment only; its size may be read
// from any thread.
class script_registry {
 public:
  // `on_size` (may be null) hears every change of size (old, new), under the
  // registry's lock.
  script_registry(bool keeps_loop_alive, void (*on_size)(std::size_t, std::size_t)) noexcept
      : keeps_loop_alive_(keeps_loop_alive), on_size_(on_size) {}
  ~script_registry();

  // Appends `object`; a registry that keeps the loop alive takes one
  // reference on `sched` per object.
  std::size_t add(scheduler& sched, Napi::Object object);
  // Drops every reference and the scheduler references taken for them.
  void clear(scheduler& sched);
  // Drops every reference without touching the scheduler (its environment
  // is being cleaned up and has stopped it).
  void forget();
  std::size_t size() const noexcept { return size_.load(std::memory_order_acquire); }
  bool empty() const noexcept { return size() == 0; }
  // The registered objects as values of the current handle scope, so that
  // calling into script may register or unregister meanwhile.
  std::vector<Napi::Object> snapshot() const;

 private:
  void set_size_locked(std::size_t n);

  const bool keeps_loop_alive_;
  void (*const on_size_)(std::size_t, std::size_t);
  mutable std::mutex mutex_;
  std::vector<Napi::ObjectReference> refs_;
  std::atomic<std::size_t> size_{0};
  std::size_t loop_refs_ = 0;
};

// The registrations of one environment. Records are process-wide (any
// thread may produce them); each delivery goes to every environment that
// has registered a target for it, on that environment's main thread.
struct env_targets {
  explicit env_targets(std::shared_ptr<scheduler> s);
  std::shared_ptr<scheduler> sched;
  script_registry reporters;
  script_registry tracers;
  script_registry fact_sinks;
};

// The calling main thread's registrations, created on first use and freed
// when its environment is cleaned up.
env_targets& current_targets();
// Every environment's registrations (any thread).
std::vector<std::shared_ptr<env_targets>> all_targets();

// The record as a script object, properties in the record's order. Main
// thread only; elsewhere throws std::runtime_error("Must be called from main thread").
Napi::Object to_script_object(Napi::Env env, const TvkRecord& record);

// Delivers the queued events to every reporter of every environment (see
// delivery_binding.cc). Any thread.
task<void> deliver_events();
// Delivers the queued facts to every fact sink of every environment.
task<void> deliver_facts();

// Starts a flush attempt for the attempt that api_stats has just granted
// (see flush_binding.cc).
void start_flush_attempt();

// Makes telemetry.h start the delivery tasks of this module.
void install_delivery_hooks();

}  // namespace ostrel::telemetry
