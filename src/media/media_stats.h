// The statistics of the media bridge. Each has an aggregate and dimensions:
// the aggregate (name, elapsed milliseconds, status code, message) goes to
// the tracers' "api_stat" spans like every call statistic; the dimensions
// ("bl1", "c2", "wl_avgv2", a statistics map's keys ...) have no place
// there, so each statistic is also sent whole as one event record to the
// reporters, category 600:
//   "msg"      the statistic's name ("InitCorvex")
//   "w_succ"   1 or 0
//   the dimensions, typed fields ("c1".."c5", "bl1".."bl5", "wl_avgv1"..)
//   where their keys say so, extra properties otherwise
//   "cost"     the elapsed milliseconds, signed, as given
//   "message"  the statistic's message
//   "code"     the status code as given (the aggregate records -1 for a
//              failure whose code is 0)
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ostrel::media {

constexpr std::int32_t media_stat_category = 600;

using stat_dimensions = std::vector<std::pair<std::string, std::string>>;

// The code recorded for the aggregate: 0 on success; on failure `code`, or
// -1 when that is 0 (a failure must not count as a success).
std::int32_t aggregate_code(bool success, std::int64_t code) noexcept;

// Records one statistic as described above; any thread, never throws.
void report_media_stat(const std::string& name, std::int64_t cost_ms, bool success, const std::string& message,
                       std::int64_t code, stat_dimensions dimensions) noexcept;

// The texture check's one category statistic: 310, "Flutter" when frames
// can be shared as textures, "Web" otherwise, with "w_succ" 1 or 0.
void report_texture_stat(bool supported) noexcept;

}  // namespace ostrel::media
