#include "telemetry.h"

#include <atomic>
#include <string>

#include "main/version.h"
#include "telemetry_state.h"

namespace ostrel::telemetry {

namespace {
std::atomic<const delivery_hooks*> g_hooks{nullptr};
}  // namespace

state& global() {
  static state* s = new state();
  return *s;
}

void install_hooks(const delivery_hooks* hooks) noexcept {
  g_hooks.store(hooks, std::memory_order_release);
}

void report_event(std::int32_t category, std::string message, std::vector<std::pair<std::string, std::string>> fields) {
  global().events.push(make_tvk_record(category, std::move(message), fields));
  const delivery_hooks* h = g_hooks.load(std::memory_order_acquire);
  if (h && h->start_event_delivery) h->start_event_delivery();
}

void report_module_event(std::string_view what, std::int32_t value, bool success) {
  report_event(194, std::string(),
               {{"wl_avgv1", std::to_string(value)},
                {"w_succ", success ? "1" : "0"},
                {"c1", version_text},
                {"c20", std::string(what)}});
}

void post_fact(std::string name, std::map<std::string, std::string> attributes) {
  if (!global().facts.post(std::move(name), std::move(attributes))) return;
  const delivery_hooks* h = g_hooks.load(std::memory_order_acquire);
  if (h && h->start_fact_delivery) h->start_fact_delivery();
}

void request_flush() {
  api_stats& stats = global().stats;
  if (!stats.begin_flush_attempt()) return;  // the pending attempt will take this record too
  const delivery_hooks* h = g_hooks.load(std::memory_order_acquire);
  if (h && h->start_flush_attempt) {
    h->start_flush_attempt();
  } else {
    stats.end_flush_attempt();
  }
}

void record_stat(std::string_view name, std::uint64_t value_ms, std::int32_t code, std::string_view message) {
  global().stats.record(name, value_ms, code, message);
  request_flush();
}

void record_stats(std::string_view name, std::uint64_t count, std::uint64_t sum_ms, std::uint64_t max_ms) {
  if (count == 0) return;
  global().stats.record_successes(name, count, sum_ms, max_ms);
  request_flush();
}

}  // namespace ostrel::telemetry
