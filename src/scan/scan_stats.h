// The scanner's call statistics: one record per platform call, with its
// duration and error code (0 on success).
#pragma once

#include <cstdint>
#include <string_view>

namespace ostrel::scan {

void record_call_stat(std::string_view api, std::string_view caller, std::uint64_t elapsed_ms, std::int32_t code);

}  // namespace ostrel::scan
