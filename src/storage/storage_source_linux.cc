// This machine's drive and disk facts: /proc/self/mountinfo, statvfs and /sys.
#include <sys/statvfs.h>

#include <cerrno>

#include "mounts.h"
#include "runtime/log.h"

namespace ostrel::storage {

namespace {
bool statvfs_space(const std::string& path, std::uint64_t& size, std::uint64_t& free_space) {
  struct statvfs s {};
  if (statvfs(path.c_str(), &s) != 0) {
    int code = errno;
    log::err_code("statvfs failed for " + path + ": ", code);
    size = free_space = 0;
    return false;
  }
  size = static_cast<std::uint64_t>(s.f_blocks) * s.f_frsize;
  free_space = static_cast<std::uint64_t>(s.f_bavail) * s.f_frsize;
  return true;
}
}  // namespace

std::shared_ptr<storage_source> system_storage_source() {
  return make_linux_source(linux_paths{}, statvfs_space);
}

}  // namespace ostrel::storage
