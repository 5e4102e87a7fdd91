// The runtime probe: a test-only add-on built from the same runtime library
// as ostrel.node. It exposes what script cannot reach through the module's
// exports (scheduler internals, spawn failures, timers, clean-up with work in
// flight) so that the JS suites can drive them. Each probe_*.cc file adds its
// functions through a probe_part registered at load time.
#pragma once

#include <napi.h>

#include <vector>

#include "runtime/scheduler.h"

namespace ostrel::probe {

// The scheduler of the environment that loaded the probe last. The probe's
// tasks reach it from worker threads; the suites load the probe on one
// thread at a time.
scheduler& sched();

using register_fn = void (*)(Napi::Env env, Napi::Object exports);

struct probe_part {
  explicit probe_part(register_fn fn) { parts().push_back(fn); }
  static std::vector<register_fn>& parts() {
    static std::vector<register_fn> list;
    return list;
  }
};

}  // namespace ostrel::probe
