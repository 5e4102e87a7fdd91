#include "name_regex.h"

#include <optional>

#include "runtime/strings.h"

namespace ostrel::scan {

namespace {

bool is_ascii_alnum(wchar_t c) {
  return (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

// Splits an expression of the form  [^] lit (.* lit)* [$]  into its literal
// segments; nothing when it uses anything else.
std::optional<std::vector<std::wstring>> split_simple(const std::wstring& p) {
  std::vector<std::wstring> segments(1);
  std::size_t i = 0, end = p.size();
  if (i < end && p[i] == L'^') ++i;
  if (end > i && p[end - 1] == L'$') {
    // "\$" at the end is a literal dollar, unless the backslash is itself escaped.
    std::size_t slashes = 0;
    for (std::size_t k = end - 1; k > i && p[k - 1] == L'\\'; --k) ++slashes;
    if (slashes % 2 == 0) --end;
  }
  bool last_was_gap = false;
  while (i < end) {
    wchar_t c = p[i];
    if (c == L'\\') {
      if (i + 1 >= end || is_ascii_alnum(p[i + 1])) return std::nullopt;  // \d, \w, \b, \u...
      segments.back().push_back(p[i + 1]);
      i += 2;
      last_was_gap = false;
    } else if (c == L'.') {
      if (i + 1 >= end || p[i + 1] != L'*') return std::nullopt;
      i += 2;
      if (i < end && p[i] == L'?') ++i;  // lazy: the same for a full match
      if (!last_was_gap) segments.emplace_back();
      last_was_gap = true;
    } else if (std::wstring_view(L"*+?()[]{}|^$").find(c) != std::wstring_view::npos) {
      return std::nullopt;
    } else {
      segments.back().push_back(c);
      ++i;
      last_was_gap = false;
    }
  }
  return segments;
}

template <typename C>
bool has_line_terminator(std::basic_string_view<C> s) {
  for (std::size_t i = 0; i < s.size(); ++i) {
    auto c = static_cast<std::make_unsigned_t<C>>(s[i]);
    if (c == '\n' || c == '\r') return true;
    if constexpr (sizeof(C) == 1) {
      // U+2028 and U+2029 in UTF-8: E2 80 A8 / E2 80 A9.
      if (c == 0xE2 && i + 2 < s.size() && static_cast<unsigned char>(s[i + 1]) == 0x80 &&
          (static_cast<unsigned char>(s[i + 2]) & 0xFE) == 0xA8)
        return true;
    } else {
      if (c == 0x2028 || c == 0x2029) return true;
    }
  }
  return false;
}

}  // namespace

invalid_pattern::invalid_pattern(const std::string& source, const std::string& reason)
    : std::runtime_error("invalid regular expression \"" + source + "\": " + reason) {}

name_regex::name_regex(const std::string& source) : source_(source) {
  std::wstring wide = to_wide(source);
  try {
    regex_.assign(wide, std::regex_constants::ECMAScript);
  } catch (const std::regex_error& e) {
    throw invalid_pattern(source, e.what());
  }
  if (auto segments = split_simple(wide)) {
    simple_ = true;
    for (const auto& s : *segments) segments_.push_back(utf8_to_native(to_utf8(s)));
  }
}

bool name_regex::match_simple(native_string_view s) const {
  if (segments_.size() == 1) return s == segments_[0];
  if (has_line_terminator(s)) return std::regex_match(to_wide(native_to_utf8(s)), regex_);
  const native_string& first = segments_.front();
  const native_string& last = segments_.back();
  if (s.size() < first.size() + last.size()) return false;
  if (s.substr(0, first.size()) != first) return false;
  if (s.substr(s.size() - last.size()) != last) return false;
  // Middle segments, leftmost first, within what the two ends leave.
  std::size_t pos = first.size();
  std::size_t limit = s.size() - last.size();
  for (std::size_t k = 1; k + 1 < segments_.size(); ++k) {
    const native_string& seg = segments_[k];
    if (seg.empty()) continue;
    std::size_t found = s.substr(0, limit).find(seg, pos);
    if (found == native_string_view::npos) return false;
    pos = found + seg.size();
  }
  return true;
}

bool name_regex::full_match(native_string_view subject) const {
  if (simple_) return match_simple(subject);
#ifdef _WIN32
  return std::regex_match(subject.begin(), subject.end(), regex_);
#else
  std::wstring wide = to_wide(subject);
  return std::regex_match(wide, regex_);
#endif
}

}  // namespace ostrel::scan
