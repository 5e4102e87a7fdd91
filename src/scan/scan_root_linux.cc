#include <filesystem>
#include <system_error>

#include "scan_walk.h"

namespace ostrel::scan {

native_string walk_root(native_string_view root) {
  std::filesystem::path p{native_string(root)};
  std::error_code ec;
  if (p.is_relative()) p = std::filesystem::absolute(p, ec);
  native_string out = p.lexically_normal().native();
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

}  // namespace ostrel::scan
