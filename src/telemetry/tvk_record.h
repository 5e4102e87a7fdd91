// The event record handed to script reporters, and how an event's
// (key, value) fields are routed into it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ostrel::telemetry {

using event_fields = std::vector<std::pair<std::string, std::string>>;

// Every field but `category` is optional and reaches script only when set.
// Script sees the properties in the order of the members below: "category",
// "msg", "c1".."c5", "bl1".."bl5", "wl_avgv1".."wl_avgv5", "w_succ", then
// the extra entries in key order.
struct TvkRecord {
  std::int32_t category = 0;
  std::optional<std::string> msg;
  std::array<std::optional<std::string>, 5> c;         // "c1".."c5"
  std::array<std::optional<std::string>, 5> bl;        // "bl1".."bl5"
  std::array<std::optional<std::int32_t>, 5> wl_avgv;  // "wl_avgv1".."wl_avgv5"
  std::optional<double> w_succ;                        // "w_succ"
  std::map<std::string, std::string> extra;            // any other key
};

// Builds a record: "c1".."c5", "bl1".."bl5", "wl_avgv1".."wl_avgv5" and
// "w_succ" fill the typed fields, every other key goes to `extra`; a later
// pair with the same key wins. A numeric key whose value is not a number
// (or is out of range) leaves its field unset and is logged. An empty
// message means "no message": the record then has no "msg".
TvkRecord make_tvk_record(std::int32_t category, std::string message, const event_fields& fields);

}  // namespace ostrel::telemetry
