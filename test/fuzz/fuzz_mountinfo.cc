// /proc/self/mountinfo text: parsing never reads out of bounds, and what it
// parses survives a round trip (each entry written back with every unusual
// byte escaped as \ooo parses to the same entry).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "storage/mounts.h"

namespace {

std::string escape(const std::string& s) {
  std::string out;
  for (unsigned char c : s) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' || c == '.' ||
        c == '_') {
      out.push_back(static_cast<char>(c));
    } else {
      char e[5];
      std::snprintf(e, sizeof e, "\\%03o", c);
      out += e;
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  const auto mounts = ostrel::storage::parse_mountinfo(text);
  for (const auto& m : mounts) {
    (void)ostrel::storage::is_listed_mount(m);
    (void)ostrel::storage::linux_drive_type(m, nullptr);
    const std::string line = "36 35 " + std::to_string(m.major) + ":" + std::to_string(m.minor) + " " + escape(m.root) +
                             " " + escape(m.mount_point) + " rw,relatime shared:1 - " + escape(m.fs_type) + " " +
                             escape(m.source) + " rw\n";
    const auto again = ostrel::storage::parse_mountinfo(line);
    if (again.size() != 1) std::abort();
    const auto& a = again.front();
    if (a.major != m.major || a.minor != m.minor || a.root != m.root || a.mount_point != m.mount_point ||
        a.fs_type != m.fs_type || a.source != m.source) {
      std::abort();
    }
  }
  return 0;
}
