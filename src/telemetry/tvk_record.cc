#include "tvk_record.h"

#include <charconv>
#include <cmath>
#include <string_view>

#include "runtime/log.h"

namespace ostrel::telemetry {

namespace {

// "c3" -> 2 for prefix "c"; -1 unless the key is the prefix and one digit 1..5.
int slot_of(std::string_view key, std::string_view prefix) {
  if (key.size() != prefix.size() + 1 || key.substr(0, prefix.size()) != prefix) return -1;
  char digit = key.back();
  return digit >= '1' && digit <= '5' ? digit - '1' : -1;
}

std::optional<std::int32_t> parse_int32(std::string_view text) {
  std::int32_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<double> parse_double(std::string_view text) {
  // from_chars for double is not in every toolchain we build with; strtod
  // is, and the text is short.
  std::string copy(text);
  if (copy.empty()) return std::nullopt;
  char* end = nullptr;
  double value = std::strtod(copy.c_str(), &end);
  if (end != copy.c_str() + copy.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

void log_bad_number(const std::string& key, const std::string& value) {
  log::err_value("report_event: ignoring a non-numeric value for " + key + ": ", value);
}

}  // namespace

TvkRecord make_tvk_record(std::int32_t category, std::string message, const event_fields& fields) {
  TvkRecord record;
  record.category = category;
  if (!message.empty()) record.msg = std::move(message);
  for (const auto& [key, value] : fields) {
    if (int i = slot_of(key, "c"); i >= 0) {
      record.c[i] = value;
    } else if (int j = slot_of(key, "bl"); j >= 0) {
      record.bl[j] = value;
    } else if (int k = slot_of(key, "wl_avgv"); k >= 0) {
      record.wl_avgv[k] = parse_int32(value);
      if (!record.wl_avgv[k]) log_bad_number(key, value);
    } else if (key == "w_succ") {
      record.w_succ = parse_double(value);
      if (!record.w_succ) log_bad_number(key, value);
    } else {
      record.extra.insert_or_assign(key, value);
    }
  }
  return record;
}

}  // namespace ostrel::telemetry
