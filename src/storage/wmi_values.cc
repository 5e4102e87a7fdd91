#include "wmi_values.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "storage_records.h"

namespace ostrel::storage {

const char* storage_type_name(std::uint32_t code) noexcept {
  switch (code) {
    case ssd:
      return "SSD";
    case hdd:
      return "HDD";
    case usb:
      return "USB";
    default:
      return "Unknown";
  }
}

std::uint64_t parse_stoull(std::string_view text) {
  std::string s(text);  // strtoull needs the terminating NUL
  const char* begin = s.c_str();
  char* end = nullptr;
  errno = 0;
  unsigned long long v = std::strtoull(begin, &end, 10);
  if (end == begin) throw std::invalid_argument("invalid stoull argument");
  if (errno == ERANGE) throw std::out_of_range("stoull argument out of range");
  return static_cast<std::uint64_t>(v);
}

std::string read_text(const wmi_value& v) {
  return v.type == wmi_value::kind::string ? v.text : std::string("unknown");
}

std::uint64_t read_size(const wmi_value& v) {
  switch (v.type) {
    case wmi_value::kind::uint64:
      return v.number;
    case wmi_value::kind::string:
      return parse_stoull(v.text);
    default:
      return 0;
  }
}

std::uint32_t read_drive_type(const wmi_value& v) {
  switch (v.type) {
    case wmi_value::kind::empty:
    case wmi_value::kind::null:
      return 0;
    default:
      return static_cast<std::uint32_t>(v.number);
  }
}

}  // namespace ostrel::storage
