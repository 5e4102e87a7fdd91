// The runtime probe: a test-only add-on over the same runtime library as
// ostrel.node, for what script cannot reach through the module's exports.
// Each file adds its functions through a probe_part registered at load time.
#pragma once

#include <napi.h>

#include <vector>

#include "runtime/scheduler.h"

namespace ostrel::probe {

// The scheduler of the environment that loaded the probe last (the suites
// load it on one thread at a time).
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
