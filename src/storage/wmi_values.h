// WMI property values as the readers see them, and the readers: text,
// 64-bit sizes (a number or a decimal string) and drive type codes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ostrel::storage {

// A property value reduced to what the readers tell apart. A property the
// object does not have (Get failed) is `empty`; SQL NULL is `null`.
struct wmi_value {
  enum class kind { empty, null, string, uint64, int32, other };
  kind type = kind::empty;
  std::string text;          // UTF-8, for `string`
  std::uint64_t number = 0;  // for `uint64`; for `int32` the value converted to 32 bits unsigned

  static wmi_value string(std::string s) { return {kind::string, std::move(s), 0}; }
  static wmi_value uint64(std::uint64_t v) { return {kind::uint64, {}, v}; }
  static wmi_value int32(std::int32_t v) { return {kind::int32, {}, static_cast<std::uint32_t>(v)}; }
  static wmi_value null() { return {kind::null, {}, 0}; }
  static wmi_value other() { return {kind::other, {}, 0}; }
};

// The unsigned decimal conversion of a size string: leading white space, an
// optional sign (a minus negates modulo 2^64), decimal digits up to the first
// other character. Throws std::invalid_argument("invalid stoull argument")
// when no digit starts the text and std::out_of_range("stoull argument out
// of range") when the value does not fit 64 bits.
std::uint64_t parse_stoull(std::string_view text);

// The text of a string value; "unknown" for any other kind.
std::string read_text(const wmi_value& v);
// A size: a 64-bit number as is, a string through parse_stoull (which may
// throw), anything else 0.
std::uint64_t read_size(const wmi_value& v);
// A drive type code: 0 for null (and a missing property), else the value's
// 32 bits.
std::uint32_t read_drive_type(const wmi_value& v);

}  // namespace ostrel::storage
