// The names of the SDK's event and info codes (for logs, statistics and the
// payload handed to script), the script event names accepted by
// addEventListener, and the joined text of a T3 map.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ostrel::media {

// "MEDIA_PREPARED" for 1 ...; "UNKNOWN" for a code not in the table.
std::string event_name(std::int32_t what);
// "MEDIA_INFO_BUFFERING_START" for 701 ...; "MEDIA_INFO_UNKNOWN(803)" for a
// code not in the table.
std::string info_name(std::int32_t info);

// The event code addEventListener registers a name under: "prepared" 1,
// "playback_complete" 2, "buffering_update" 3, "seek_complete" 4,
// "started" 6, "paused" 7, "stopped" 8, "skipped" 9, "error" 100, "info"
// 200. Names compare exactly; any other name gives 200, as "info" does.
std::int32_t listener_code(std::string_view name);

// Every entry as key "=" value ",", in order, with each "," inside a value
// written as "@".
std::string join_t3(const std::vector<std::pair<std::string, std::string>>& map);

}  // namespace ostrel::media
