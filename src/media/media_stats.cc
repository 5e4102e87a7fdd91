#include "media_stats.h"

#include <algorithm>
#include <exception>

#include "runtime/log.h"
#include "telemetry/telemetry.h"

namespace ostrel::media {

std::int32_t aggregate_code(bool success, std::int64_t code) noexcept {
  if (success) return 0;
  if (code == 0) return -1;
  return static_cast<std::int32_t>(code);
}

void report_media_stat(const std::string& name, std::int64_t cost_ms, bool success, const std::string& message,
                       std::int64_t code, stat_dimensions dimensions) noexcept {
  try {
    std::int32_t recorded = aggregate_code(success, code);
    telemetry::record_stat(name, static_cast<std::uint64_t>(std::max<std::int64_t>(0, cost_ms)), recorded, message);
    dimensions.emplace_back("w_succ", success ? "1" : "0");
    dimensions.emplace_back("cost", std::to_string(cost_ms));
    dimensions.emplace_back("message", message);
    dimensions.emplace_back("code", std::to_string(code));
    telemetry::report_event(media_stat_category, name, std::move(dimensions));
  } catch (const std::exception& e) {
    log::err_value("Ostrel media statistic lost: ", e.what());
  } catch (...) {
    log::err("Ostrel media statistic lost");
  }
}

void report_texture_stat(bool supported) noexcept {
  try {
    telemetry::report_category_stat(310, supported ? "Flutter" : "Web", {{"w_succ", supported ? "1" : "0"}});
  } catch (...) {
    log::err("Ostrel media statistic lost");
  }
}

}  // namespace ostrel::media
