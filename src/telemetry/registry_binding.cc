#include <utility>

#include "runtime/log.h"
#include "runtime/napi_util.h"
#include "runtime/scheduler.h"
#include "telemetry_binding.h"
#include "telemetry_state.h"

namespace ostrel::telemetry {

void script_registry::set_size_locked(std::size_t n) {
  size_.store(n, std::memory_order_release);
  if (on_size_) on_size_(n);
}

std::size_t script_registry::add(Napi::Env env, Napi::Object object) {
  std::size_t n;
  {
    std::lock_guard lock(mutex_);
    if (hooked_env_ != static_cast<napi_env>(env)) {
      // One hook per environment: Node refuses the same hook twice.
      napi_check(env, napi_add_env_cleanup_hook(env, &script_registry::on_env_teardown, this));
      hooked_env_ = env;
    }
    refs_.push_back(Napi::Persistent(object));
    n = refs_.size();
    set_size_locked(n);
    if (keeps_loop_alive_) ++loop_refs_;
  }
  if (keeps_loop_alive_) scheduler::instance().add_ref();
  return n;
}

void script_registry::clear() {
  std::vector<Napi::ObjectReference> dropped;
  std::size_t loop_refs;
  {
    std::lock_guard lock(mutex_);
    dropped.swap(refs_);
    loop_refs = std::exchange(loop_refs_, 0);
    set_size_locked(0);
  }
  dropped.clear();  // deletes the references, outside the lock
  for (std::size_t i = 0; i < loop_refs; ++i) scheduler::instance().release();
}

std::vector<Napi::Object> script_registry::snapshot() const {
  std::lock_guard lock(mutex_);
  std::vector<Napi::Object> objects;
  objects.reserve(refs_.size());
  for (const auto& ref : refs_) objects.push_back(ref.Value());
  return objects;
}

void script_registry::on_env_teardown(void* self) {
  auto* r = static_cast<script_registry*>(self);
  std::vector<Napi::ObjectReference> dropped;
  {
    std::lock_guard lock(r->mutex_);
    dropped.swap(r->refs_);
    // The module's own clean-up stops the scheduler and forgets every
    // reference; releasing here would only close a handle twice.
    r->loop_refs_ = 0;
    r->hooked_env_ = nullptr;
    r->set_size_locked(0);
  }
  // The environment is still alive while its clean-up hooks run, so the
  // references can be deleted now; after this nothing refers to it.
}

namespace {
void fact_sink_count(std::size_t n) {
  global().facts.set_sink_count(n);
}
}  // namespace

script_registry& reporters() {
  static auto* r = new script_registry(true, nullptr);
  return *r;
}

script_registry& tracers() {
  static auto* r = new script_registry(true, nullptr);
  return *r;
}

script_registry& fact_sinks() {
  static auto* r = new script_registry(false, &fact_sink_count);
  return *r;
}

}  // namespace ostrel::telemetry
