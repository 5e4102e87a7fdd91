#include "leave_list.h"

#include "scan_filters.h"

namespace ostrel::scan {

namespace {

native_string comparable(native_string_view text) {
#ifdef _WIN32
  native_string out = lower_ascii(text);
  for (auto& c : out) {
    if (c == L'/') c = L'\\';
  }
  return out;
#else
  return native_string(text);
#endif
}

bool is_absolute(native_string_view p) {
#ifdef _WIN32
  return (p.size() >= 2 && p[1] == L':') || (p.size() >= 2 && p[0] == L'\\' && p[1] == L'\\');
#else
  return !p.empty() && p[0] == '/';
#endif
}

void trim_trailing_separators(native_string& p) {
  while (p.size() > 1 && p.back() == native_separator) p.pop_back();
}

}  // namespace

native_string leave_list::normalise(native_string_view entry, native_string_view root) {
  native_string e = comparable(entry);
  trim_trailing_separators(e);
  if (is_absolute(e)) {
    native_string r = comparable(root);
    trim_trailing_separators(r);
    if (e.size() <= r.size() + 1 || e.compare(0, r.size(), r) != 0 || e[r.size()] != native_separator) {
      // The file system's root ends with its separator already.
      if (!r.empty() && r.back() == native_separator && e.compare(0, r.size(), r) == 0 && e.size() > r.size()) {
        return e.substr(r.size());
      }
      return {};
    }
    return e.substr(r.size() + 1);
  }
  while (e.size() > 2 && e[0] == '.' && e[1] == native_separator) e.erase(0, 2);
  return e;
}

leave_list::leave_list(const std::vector<native_string>& entries, native_string_view root) {
  for (const auto& entry : entries) {
    native_string n = normalise(entry, root);
    if (!n.empty()) set_.insert(std::move(n));
  }
}

bool leave_list::contains(native_string_view relative) const {
  if (set_.empty()) return false;
#ifdef _WIN32
  return set_.count(lower_ascii(relative)) != 0;
#else
  return set_.count(native_string(relative)) != 0;
#endif
}

}  // namespace ostrel::scan
