// UTF-8 toward script, UTF-16 toward Windows. Invalid sequences become
// U+FFFD instead of failing: a name the system gave us is always reported.
#pragma once

#include <string>
#include <string_view>

namespace ostrel {

std::string to_utf8(std::u16string_view text);
std::u16string to_utf16(std::string_view text);

// wchar_t is UTF-16 on Windows and UTF-32 on Linux.
std::string to_utf8(std::wstring_view text);
std::wstring to_wide(std::string_view text);

// How many bytes at the start of `text` are ASCII (below 0x80); read eight
// at a time, since most names are ASCII and every record's text is checked.
std::size_t ascii_prefix(std::string_view text) noexcept;
inline bool is_ascii(std::string_view text) noexcept {
  return ascii_prefix(text) == text.size();
}

// The system's short text for an error code (errno on Linux, a Win32 code
// on Windows), without the trailing period and line break.
std::string system_error_text(int code);

}  // namespace ostrel
