#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "dir_listing.h"
#include "file_query_linux.h"

namespace ostrel::scan {

dir_listing::~dir_listing() {
  close();
}

void dir_listing::close() noexcept {
  if (dir_) {
    closedir(static_cast<DIR*>(dir_));  // closes fd_ too
  } else if (fd_ >= 0) {
    ::close(fd_);
  }
  dir_ = nullptr;
  fd_ = -1;
}

bool dir_listing::open(const native_string& path, const dir_listing* parent, native_string_view name,
                       bool fast_metadata) {
  close();
  fast_ = fast_metadata;
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;
  if (parent && parent->fd_ >= 0) {
    // Names come straight from readdir and are NUL-terminated.
    fd_ = ::openat(parent->fd_, name.data(), flags);
  } else {
    // The root may itself be a link to a folder: follow it.
    fd_ = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }
  if (fd_ < 0) {
    int error = errno;
    if (error == ENOENT || error == ENOTDIR || error == EACCES || error == EPERM || error == ELOOP) return false;
    throw std::system_error(error, std::generic_category(), "openat");
  }
  dir_ = fdopendir(fd_);
  if (!dir_) {
    int error = errno;
    close();
    throw std::system_error(error, std::generic_category(), "fdopendir");
  }
  return true;
}

bool dir_listing::next(dir_entry& entry) {
  if (!dir_) return false;
  errno = 0;
  struct dirent64* d = readdir64(static_cast<DIR*>(dir_));
  if (!d) return false;  // the end, or a failing read: either ends the folder
  entry = dir_entry{};
  entry.name = d->d_name;
  if (d->d_type == DT_UNKNOWN) {
    struct stat st;
    entry.is_dir = fstatat(fd_, d->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
  } else {
    entry.is_dir = d->d_type == DT_DIR;
  }
  return true;
}

query_outcome dir_listing::query_name(FileInfo& info, native_string_view entry_name) const {
  const char* name = entry_name.data();  // NUL-terminated
  if (!fast_) return query_file_info_at(fd_, name, info);
  // The fast mode: the entry's own metadata (a link is not followed), no
  // call statistic.
  struct statx st;
  if (statx(fd_, name, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC,
            STATX_TYPE | STATX_INO | STATX_SIZE | STATX_MTIME | STATX_CTIME | STATX_BTIME, &st) == 0) {
    fill_from_statx(info, st, info.name);
    return query_outcome::filled;
  }
  return classify_errno(errno) == query_outcome::denied ? query_outcome::denied : query_outcome::missing;
}

}  // namespace ostrel::scan
