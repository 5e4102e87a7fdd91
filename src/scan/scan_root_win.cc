#include <windows.h>

#include <vector>

#include "scan_walk.h"

namespace ostrel::scan {

native_string walk_root(native_string_view root) {
  native_string given(root);
  DWORD needed = GetFullPathNameW(given.c_str(), 0, nullptr, nullptr);
  native_string out;
  if (needed == 0) {
    out = given;  // left as it is; the listing will report the failure
  } else {
    std::vector<wchar_t> buffer(needed + 1);
    DWORD written = GetFullPathNameW(given.c_str(), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
    out.assign(buffer.data(), written);
  }
  for (auto& c : out) {
    if (c == L'/') c = L'\\';
  }
  // Keep "C:\" whole; drop any other trailing separator.
  while (out.size() > 3 && out.back() == L'\\') out.pop_back();
  if (out.size() == 2 && out[1] == L':') out.push_back(L'\\');
  return out;
}

}  // namespace ostrel::scan
