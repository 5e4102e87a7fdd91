#include <algorithm>
#include <utility>

#include "runtime/environment.h"
#include "runtime/log.h"
#include "runtime/napi_util.h"
#include "runtime/scheduler.h"
#include "telemetry_binding.h"
#include "telemetry_state.h"

namespace ostrel::telemetry {

script_registry::~script_registry() {
  forget();
}

void script_registry::set_size_locked(std::size_t n) {
  std::size_t old = size_.exchange(n, std::memory_order_acq_rel);
  if (on_size_) on_size_(old, n);
}

std::size_t script_registry::add(scheduler& sched, Napi::Object object) {
  std::size_t n;
  {
    std::lock_guard lock(mutex_);
    refs_.push_back(Napi::Persistent(object));
    n = refs_.size();
    set_size_locked(n);
    if (keeps_loop_alive_) ++loop_refs_;
  }
  if (keeps_loop_alive_) sched.add_ref();
  return n;
}

void script_registry::clear(scheduler& sched) {
  std::vector<Napi::ObjectReference> dropped;
  std::size_t loop_refs;
  {
    std::lock_guard lock(mutex_);
    dropped.swap(refs_);
    loop_refs = std::exchange(loop_refs_, 0);
    set_size_locked(0);
  }
  dropped.clear();  // deletes the references, outside the lock
  for (std::size_t i = 0; i < loop_refs; ++i) sched.release();
}

void script_registry::forget() {
  std::vector<Napi::ObjectReference> dropped;
  {
    std::lock_guard lock(mutex_);
    dropped.swap(refs_);
    loop_refs_ = 0;
    set_size_locked(0);
  }
  // The environment is still alive while it is cleaned up, so the
  // references can be deleted now; after this nothing refers to it.
}

std::vector<Napi::Object> script_registry::snapshot() const {
  std::lock_guard lock(mutex_);
  std::vector<Napi::Object> objects;
  objects.reserve(refs_.size());
  for (const auto& ref : refs_) objects.push_back(ref.Value());
  return objects;
}

namespace {

// Fact sinks of every environment together: facts with no sink anywhere
// are dropped.
void fact_sink_count(std::size_t old_size, std::size_t new_size) {
  static std::atomic<std::size_t> total{0};
  const std::size_t delta = new_size - old_size;  // modular: a shrink wraps back
  global().facts.set_sink_count(total.fetch_add(delta, std::memory_order_acq_rel) + delta);
}

std::mutex g_targets_mutex;
// Never destroyed: producers on worker threads may ask while the process
// exits.
std::vector<std::shared_ptr<env_targets>>& targets_list() {
  static auto* list = new std::vector<std::shared_ptr<env_targets>>();
  return *list;
}

// Owned by the environment's data; its end (on the main thread, at the
// environment's clean-up) takes the registrations out of the list and drops
// their references.
struct targets_owner {
  std::shared_ptr<env_targets> targets;
  ~targets_owner() {
    if (!targets) return;
    {
      std::lock_guard lock(g_targets_mutex);
      auto& list = targets_list();
      list.erase(std::remove(list.begin(), list.end(), targets), list.end());
    }
    targets->reporters.forget();
    targets->tracers.forget();
    targets->fact_sinks.forget();
  }
};

}  // namespace

env_targets::env_targets(std::shared_ptr<scheduler> s)
    : sched(std::move(s)), reporters(true, nullptr), tracers(true, nullptr), fact_sinks(false, &fact_sink_count) {}

env_targets& current_targets() {
  auto env = environment::current();
  if (!env) throw std::runtime_error("Must be called from main thread");
  auto& owner = env->data<targets_owner>();
  if (!owner.targets) {
    owner.targets = std::make_shared<env_targets>(env->shared_scheduler());
    std::lock_guard lock(g_targets_mutex);
    targets_list().push_back(owner.targets);
  }
  return *owner.targets;
}

std::vector<std::shared_ptr<env_targets>> all_targets() {
  std::lock_guard lock(g_targets_mutex);
  return targets_list();
}

}  // namespace ostrel::telemetry
