// The runtime probe: a test-only add-on built from the same runtime library
// as ostrel.node. It exposes what script cannot reach through the module's
// exports (scheduler internals, spawn failures, timers, clean-up with work in
// flight) so that the JS suites can drive them. Each probe_*.cc file adds its
// functions through a probe_part registered at load time.
#pragma once

#include <napi.h>

#include <vector>

namespace ostrel::probe {

using register_fn = void (*)(Napi::Env env, Napi::Object exports);

struct probe_part {
  explicit probe_part(register_fn fn) { parts().push_back(fn); }
  static std::vector<register_fn>& parts() {
    static std::vector<register_fn> list;
    return list;
  }
};

}  // namespace ostrel::probe
