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
  // A root in the \\?\ form ("\\?\C:\dir", "\\?\UNC\server\share\dir") is
  // kept in that form; the rules below apply to what follows the prefix.
  std::size_t prefix = 0;
  if (out.rfind(L"\\\\?\\UNC\\", 0) == 0) {
    prefix = 8;
  } else if (out.rfind(L"\\\\?\\", 0) == 0 || out.rfind(L"\\\\.\\", 0) == 0) {
    prefix = 4;
  }
  // Keep "C:\" whole; drop any other trailing separator.
  while (out.size() > prefix + 3 && out.back() == L'\\') out.pop_back();
  if (out.size() == prefix + 2 && out[prefix + 1] == L':') out.push_back(L'\\');
  return out;
}

}  // namespace ostrel::scan
