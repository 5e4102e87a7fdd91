// What the rest of the add-on calls to hand telemetry to script. Every
// function may be called from any thread, returns at once and never throws
// for lack of a listener: records wait in queues (events), are dropped
// (facts with no sink) or are aggregated (statistics) until script-side
// reporters, fact sinks and tracers receive them on the main thread.
//
//   telemetry::record_stat("CreateFileW", elapsed_ms, error);      // a call's outcome
//   telemetry::report_event(310, "Flutter", {{"w_succ", "1"}});    // an event record
//   telemetry::post_fact("corvex_stat", info_map);                 // a named fact
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ostrel::telemetry {

// Queues an event record for every registered reporter ("report" method).
// Keys "c1".."c5", "bl1".."bl5", "wl_avgv1".."wl_avgv5" (integers) and
// "w_succ" (a number) fill the record's typed fields; any other key is sent
// as an extra property. An empty message sends no "msg". Events reported
// while no reporter is registered wait for the first one.
void report_event(std::int32_t category, std::string message,
                  std::vector<std::pair<std::string, std::string>> fields = {});

// A category statistic, such as 310 ("Flutter" or "Web", with "w_succ"),
// travels as an event record through report_event.
inline void report_category_stat(std::int32_t category, std::string text,
                                 std::vector<std::pair<std::string, std::string>> fields = {}) {
  report_event(category, std::move(text), std::move(fields));
}

// The add-on's own event, category 194: "wl_avgv1" = value, "w_succ" = 1 or
// 0, "c1" = the add-on version and the extra entry "c20" = what.
void report_module_event(std::string_view what, std::int32_t value, bool success);

// Hands (name, attributes) to every registered fact sink ("corvex" method).
// Dropped when no fact sink is registered.
void post_fact(std::string name, std::map<std::string, std::string> attributes);

// Records one call statistic: its name, duration in milliseconds, status
// code (0 for success) and a message kept with the first failure. Costs a
// map update; tracers receive one aggregated span per name at most every
// 500 ms.
void record_stat(std::string_view name, std::uint64_t value_ms, std::int32_t code = 0, std::string_view message = {});
// `count` successful calls at once (code 0), `sum_ms` their total and
// `max_ms` the longest: the same statistic as `count` record_stat calls,
// for callers that make calls by the hundred thousand.
void record_stats(std::string_view name, std::uint64_t count, std::uint64_t sum_ms, std::uint64_t max_ms);

}  // namespace ostrel::telemetry
