// A sysfs tree as a machine (or a hostile driver) may present it: device
// numbers, slaves that loop or fan out, links that lead nowhere or outside.
// The reader must not crash or loop, and every disk it finds for a device
// is one of its disks.
// Input: one entry per line, relative to the tree's root:
//   path=content   a file        path/   a folder        path>target   a link
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "storage/mounts.h"

namespace fs = std::filesystem;

namespace {

const fs::path& root() {
  static const fs::path r = [] {
    // Memory-backed when there is one: the tree is written again for every input.
    fs::path base = fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    fs::path p = base / ("ostrel-fuzz-sysfs-" + std::to_string(getpid()));
    return p;
  }();
  return r;
}

// True when `rel` is a plain relative path ("..", absolute and empty
// components refused) whose existing prefixes are folders, not links: so
// nothing is ever written outside the root.
bool safe(const std::string& rel) {
  if (rel.empty() || rel.size() > 200 || rel.front() == '/') return false;
  fs::path at = root();
  for (const auto& c : fs::path(rel)) {
    if (c == ".." || c == "." || c.empty()) return false;
    at /= c;
    std::error_code ec;
    if (fs::is_symlink(fs::symlink_status(at, ec))) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;
  std::error_code ec;
  fs::remove_all(root(), ec);
  fs::create_directories(root() / "block", ec);
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<std::pair<std::string, std::string>> links;
  int entries = 0;
  while (!text.empty() && entries++ < 64) {
    std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    std::size_t eq = line.find('='), gt = line.find('>');
    if (eq != std::string_view::npos && (gt == std::string_view::npos || eq < gt)) {
      std::string rel(line.substr(0, eq));
      if (!safe(rel)) continue;
      fs::create_directories((root() / rel).parent_path(), ec);
      std::ofstream(root() / rel) << line.substr(eq + 1) << '\n';
    } else if (gt != std::string_view::npos) {
      links.emplace_back(line.substr(0, gt), line.substr(gt + 1));
    } else if (!line.empty() && line.back() == '/') {
      std::string rel(line.substr(0, line.size() - 1));
      if (safe(rel)) fs::create_directories(root() / rel, ec);
    }
  }
  // Links last, so that no file above was written through one.
  for (const auto& [rel, target] : links) {
    if (!safe(rel) || target.empty() || target.front() == '/') continue;
    fs::create_directories((root() / rel).parent_path(), ec);
    if (safe(rel)) fs::create_symlink(target, root() / rel, ec);
  }

  ostrel::storage::block_devices devices(root().string());
  const auto& disks = devices.disks();
  // The small majors, device-mapper (253) and NVMe (259).
  static const unsigned majors[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 253, 259};
  for (unsigned major : majors) {
    for (unsigned minor = 0; minor < 20; ++minor) {
      bool spanned = true;
      const ostrel::storage::block_disk* d = devices.disk_for(major, minor, spanned);
      if (d && (d < disks.data() || d >= disks.data() + disks.size())) std::abort();
      if (d && spanned) std::abort();
      ostrel::storage::mount_entry m;
      m.major = major;
      m.minor = minor;
      (void)ostrel::storage::linux_drive_type(m, d);
    }
  }
  return 0;
}
