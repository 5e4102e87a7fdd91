#include <napi.h>

#include <thread>

#include "probe.h"
#include "runtime/environment.h"
#include "runtime/thread_pool.h"

namespace ostrel::probe {

namespace {
std::shared_ptr<scheduler> g_sched;
}  // namespace

scheduler& sched() {
  return *g_sched;
}

namespace {

Napi::Object init(Napi::Env env, Napi::Object exports) {
  g_sched = environment::start(env, thread_pool::default_size(std::thread::hardware_concurrency()))->shared_scheduler();
  for (register_fn fn : probe_part::parts()) fn(env, exports);
  return exports;
}

}  // namespace
}  // namespace ostrel::probe

static Napi::Object init_probe(Napi::Env env, Napi::Object exports) {
  return ostrel::probe::init(env, exports);
}
NODE_API_MODULE(runtime_probe, init_probe)
