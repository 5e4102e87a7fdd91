// WMI property values as a provider may return them, checked against a
// reference reading of the documented rules: a size string is leading white
// space, an optional sign (minus negates modulo 2^64), then decimal digits
// up to the first other character; no digit is invalid_argument, more than
// 64 bits is out_of_range.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "storage/wmi_values.h"

namespace {

enum class outcome { value, invalid, range };

outcome reference(const std::string& s, std::uint64_t& value) {
  std::size_t i = 0;
  while (i < s.size() && std::strchr(" \t\n\v\f\r", s[i]) && s[i] != '\0') ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  if (i >= s.size() || s[i] < '0' || s[i] > '9') return outcome::invalid;
  std::uint64_t v = 0;
  bool overflow = false;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    const std::uint64_t digit = static_cast<std::uint64_t>(s[i] - '0');
    if (v > (UINT64_MAX - digit) / 10) overflow = true;
    v = v * 10 + digit;
  }
  if (overflow) return outcome::range;
  value = negative ? 0 - v : v;
  return outcome::value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using ostrel::storage::wmi_value;
  if (size < 1) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::uint64_t number = 0;
  std::memcpy(&number, data + 1, size - 1 < 8 ? size - 1 : 8);
  wmi_value v;
  switch (data[0] % 6) {
    case 0:
      v = wmi_value::string(text);
      break;
    case 1:
      v = wmi_value::uint64(number);
      break;
    case 2:
      v = wmi_value::int32(static_cast<std::int32_t>(number));
      break;
    case 3:
      v = wmi_value::null();
      break;
    case 4:
      v = wmi_value::other();
      break;
    default:
      break;  // empty
  }
  const std::string t = ostrel::storage::read_text(v);
  if (t != (v.type == wmi_value::kind::string ? text : std::string("unknown"))) std::abort();
  const std::uint32_t type = ostrel::storage::read_drive_type(v);
  const bool absent = v.type == wmi_value::kind::empty || v.type == wmi_value::kind::null;
  if (type != (absent ? 0u : static_cast<std::uint32_t>(v.number))) std::abort();

  std::uint64_t expected = 0;
  const outcome want = v.type == wmi_value::kind::string ? reference(text, expected) : outcome::value;
  if (v.type == wmi_value::kind::uint64) expected = number;
  outcome got = outcome::value;
  std::uint64_t size_read = 0;
  try {
    size_read = ostrel::storage::read_size(v);
  } catch (const std::invalid_argument&) {
    got = outcome::invalid;
  } catch (const std::out_of_range&) {
    got = outcome::range;
  }
  if (got != want || (got == outcome::value && size_read != expected)) std::abort();
  return 0;
}
