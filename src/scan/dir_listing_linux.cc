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

listing_status dir_listing::classify(int code) noexcept {
  switch (code) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:  // a folder replaced by a link since it was listed (links are never opened below the root)
      return listing_status::missing;
    case EACCES:
    case EPERM:
      return listing_status::denied;
    default:
      return listing_status::failed;
  }
}

void dir_listing::fail_listing(int code) noexcept {
  error_ = code;
  end_ = classify(code);
}

listing_status dir_listing::open(const native_string& path, const dir_listing* parent, const dir_entry* entry,
                                 bool fast_metadata) {
  close();
  fast_ = fast_metadata;
  end_ = listing_status::listed;
  error_ = 0;
  id_ = folder_id{};
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;
  if (parent && entry && parent->fd_ >= 0) {
    // Names come straight from readdir and are NUL-terminated.
    fd_ = ::openat(parent->fd_, entry->name.data(), flags);
  } else {
    // The root may itself be a link to a folder: follow it.
    fd_ = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }
  if (fd_ < 0) {
    error_ = errno;
    return classify(error_);
  }
  struct stat st;
  if (::fstat(fd_, &st) == 0) {
    id_.volume = static_cast<std::uint64_t>(st.st_dev);
    id_.low = static_cast<std::uint64_t>(st.st_ino);
    id_.known = true;
  }
  dir_ = fdopendir(fd_);
  if (!dir_) {
    error_ = errno;
    close();
    return classify(error_);
  }
  return listing_status::listed;
}

bool dir_listing::next(dir_entry& entry) {
  if (!dir_) return false;
  errno = 0;
  struct dirent64* d = readdir64(static_cast<DIR*>(dir_));
  if (!d) {
    // The end, or a failing read, which ends the folder's listing early.
    // The folder stays open: queries of its entries still use it.
    if (errno != 0) fail_listing(errno);
    return false;
  }
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
