#include <napi.h>

#include <cstdlib>
#include <thread>

#include "probe.h"
#include "runtime/environment.h"
#include "runtime/runtime.h"
#include "runtime/thread_pool.h"

namespace ostrel::probe {

namespace {
std::shared_ptr<scheduler> g_sched;
}  // namespace

scheduler& sched() {
  return *g_sched;
}

namespace {

// OSTREL_PROBE_HARDWARE_THREADS pretends the machine has that many hardware
// threads, to test the pool's size rule.
unsigned hardware_threads() {
  if (const char* v = std::getenv("OSTREL_PROBE_HARDWARE_THREADS")) return static_cast<unsigned>(std::atoi(v));
  return std::thread::hardware_concurrency();
}

Napi::Object init(Napi::Env env, Napi::Object exports) {
  g_sched = environment::start(env, thread_pool::default_size(hardware_threads()))->shared_scheduler();
  exports.Set("poolSize", Napi::Function::New(env, [](const Napi::CallbackInfo& info) {
                return Napi::Number::New(info.Env(), static_cast<double>(runtime::pool()->size()));
              }));
  for (register_fn fn : probe_part::parts()) fn(env, exports);
  return exports;
}

}  // namespace
}  // namespace ostrel::probe

static Napi::Object init_probe(Napi::Env env, Napi::Object exports) {
  return ostrel::probe::init(env, exports);
}
NODE_API_MODULE(runtime_probe, init_probe)
