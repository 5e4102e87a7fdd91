#include "native_path.h"

#include "runtime/strings.h"

namespace ostrel::scan {

namespace {
#ifndef _WIN32
// True when `text` is well-formed UTF-8, so it can go to script unchanged.
bool is_valid_utf8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    if (*p < 0x80) {
      p += ascii_prefix(std::string_view(reinterpret_cast<const char*>(p), static_cast<std::size_t>(end - p)));
      continue;
    }
    int len = (*p & 0xE0) == 0xC0 ? 2 : (*p & 0xF0) == 0xE0 ? 3 : (*p & 0xF8) == 0xF0 ? 4 : 0;
    if (len == 0 || end - p < len) return false;
    char32_t cp = *p & (0xFF >> (len + 1));
    for (int k = 1; k < len; ++k) {
      if ((p[k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[k] & 0x3F);
    }
    static constexpr char32_t min_for_len[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < min_for_len[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    p += len;
  }
  return true;
}
#endif
}  // namespace

#ifdef _WIN32
bool is_valid_name(native_string_view name) {
  for (std::size_t i = 0; i < name.size(); ++i) {
    wchar_t c = name[i];
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (i + 1 == name.size() || name[i + 1] < 0xDC00 || name[i + 1] > 0xDFFF) return false;
      ++i;
    } else if (c >= 0xDC00 && c <= 0xDFFF) {
      return false;
    }
  }
  return true;
}
std::string native_to_utf8(native_string_view text) {
  return to_utf8(text);
}
native_string utf8_to_native(std::string_view text) {
  return to_wide(text);
}
std::wstring native_to_wide(native_string_view text) {
  return std::wstring(text);
}
#else
bool is_valid_name(native_string_view name) {
  return is_valid_utf8(name);
}
std::string native_to_utf8(native_string_view text) {
  if (is_valid_utf8(text)) return std::string(text);
  return to_utf8(to_wide(text));
}
native_string utf8_to_native(std::string_view text) {
  return std::string(text);
}
std::wstring native_to_wide(native_string_view text) {
  return to_wide(text);
}
#endif

}  // namespace ostrel::scan
