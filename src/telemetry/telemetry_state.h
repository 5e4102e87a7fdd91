// The process-wide telemetry state behind telemetry.h, and the hooks by
// which the script-facing half starts its delivery tasks. Without hooks
// (unit tests, or before the module has registered its exports) records
// only accumulate.
#pragma once

#include "api_stats.h"
#include "queues.h"

namespace ostrel::telemetry {

struct state {
  event_queue events;
  fact_queue facts;
  api_stats stats;
};

// Never destroyed: producers on worker threads may still run while the
// process exits.
state& global();

// Each hook starts one task and returns at once; any thread may call them.
struct delivery_hooks {
  void (*start_event_delivery)() = nullptr;
  void (*start_fact_delivery)() = nullptr;
  // Must end the attempt (api_stats::end_flush_attempt) on every path.
  void (*start_flush_attempt)() = nullptr;
};

// `hooks` must outlive the process (a static); null removes them.
void install_hooks(const delivery_hooks* hooks) noexcept;

// Starts a flush attempt unless one is already pending.
void request_flush();

}  // namespace ostrel::telemetry
