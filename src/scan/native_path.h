// The string type the file system speaks: UTF-16 on Windows, bytes on Linux
// (names are passed to the kernel exactly as it gave them).
#pragma once

#include <string>
#include <string_view>

namespace ostrel::scan {

#ifdef _WIN32
using native_char = wchar_t;
inline constexpr native_char native_separator = L'\\';
#define OSTREL_NATIVE(text) L##text
#else
using native_char = char;
inline constexpr native_char native_separator = '/';
#define OSTREL_NATIVE(text) text
#endif
using native_string = std::basic_string<native_char>;
using native_string_view = std::basic_string_view<native_char>;

// True when `name` converts to script text and back unchanged: well-formed
// UTF-8 on Linux (names there are bytes), no unpaired surrogate on Windows.
// A name that is not would reach script as a path that does not exist.
bool is_valid_name(native_string_view name);

// UTF-8 of a native string (invalid sequences become U+FFFD).
std::string native_to_utf8(native_string_view text);
// The native form of a UTF-8 string from script.
native_string utf8_to_native(std::string_view text);
// Wide text for the wide log lines.
std::wstring native_to_wide(native_string_view text);

}  // namespace ostrel::scan
