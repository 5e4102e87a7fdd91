// The module's log lines: plain text, then a newline, then a flush, with no
// prefix, timestamp or level. Progress goes to standard output, failures to
// standard error, and wide text (paths) to the wide standard output.
// Each call writes its line whole, so lines from different threads never
// interleave.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ostrel::log {

void out(std::string_view text);
void err(std::string_view text);
void wout(std::wstring_view text);

// `text` directly followed by `value`, as in "... error code: 5".
void out_value(std::string_view text, std::string_view value);
void err_value(std::string_view text, std::string_view value);
// A platform error in decimal.
void err_code(std::string_view text, std::int64_t code);
// A COM result in hexadecimal (0x80070005).
void err_hresult(std::string_view text, std::uint32_t hr);

}  // namespace ostrel::log
