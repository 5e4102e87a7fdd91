#include "strings.h"

#include <system_error>

#include <cstdint>
#include <cstring>

namespace ostrel {

namespace {
constexpr char32_t replacement = 0xFFFD;

void append_utf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

// Decodes one code point at `i`, advancing it; malformed input yields U+FFFD
// and consumes one byte.
char32_t next_utf8(std::string_view s, std::size_t& i) {
  auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char b0 = byte(i);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  int len = (b0 & 0xE0) == 0xC0 ? 2 : (b0 & 0xF0) == 0xE0 ? 3 : (b0 & 0xF8) == 0xF0 ? 4 : 0;
  if (len == 0 || i + len > s.size()) {
    ++i;
    return replacement;
  }
  char32_t cp = b0 & (0xFF >> (len + 1));
  for (int k = 1; k < len; ++k) {
    unsigned char b = byte(i + k);
    if ((b & 0xC0) != 0x80) {
      ++i;
      return replacement;
    }
    cp = (cp << 6) | (b & 0x3F);
  }
  static constexpr char32_t min_for_len[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < min_for_len[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++i;
    return replacement;
  }
  i += len;
  return cp;
}

template <typename Char>
std::string utf16_to_utf8(std::basic_string_view<Char> s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i) {
    char32_t c = static_cast<char16_t>(s[i]);
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < s.size()) {
      char32_t low = static_cast<char16_t>(s[i + 1]);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        append_utf8(out, 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00));
        ++i;
        continue;
      }
    }
    append_utf8(out, (c >= 0xD800 && c <= 0xDFFF) ? replacement : c);
  }
  return out;
}

template <typename Char>
std::basic_string<Char> utf8_to_utf16(std::string_view s) {
  std::basic_string<Char> out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size();) {
    char32_t cp = next_utf8(s, i);
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<Char>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<Char>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<Char>(cp));
    }
  }
  return out;
}
}  // namespace

std::string to_utf8(std::u16string_view text) {
  return utf16_to_utf8(text);
}
std::u16string to_utf16(std::string_view text) {
  return utf8_to_utf16<char16_t>(text);
}

std::string to_utf8(std::wstring_view text) {
  if constexpr (sizeof(wchar_t) == 2) {
    return utf16_to_utf8(text);
  } else {
    std::string out;
    out.reserve(text.size());
    for (wchar_t c : text) {
      auto cp = static_cast<char32_t>(c);
      append_utf8(out, (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) ? replacement : cp);
    }
    return out;
  }
}

std::wstring to_wide(std::string_view text) {
  if constexpr (sizeof(wchar_t) == 2) {
    return utf8_to_utf16<wchar_t>(text);
  } else {
    std::wstring out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) out.push_back(static_cast<wchar_t>(next_utf8(text, i)));
    return out;
  }
}

std::string system_error_text(int code) {
  std::string text = std::system_category().message(code);
  while (!text.empty() && (text.back() == '.' || text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
    text.pop_back();
  }
  return text;
}

std::size_t ascii_prefix(std::string_view text) noexcept {
  std::size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + i, 8);
    if (word & 0x8080808080808080ULL) break;
  }
  while (i < text.size() && static_cast<unsigned char>(text[i]) < 0x80) ++i;
  return i;
}

}  // namespace ostrel
