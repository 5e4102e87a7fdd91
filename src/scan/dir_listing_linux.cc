#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "dir_listing.h"
#include "file_query_linux.h"
#include "scan_stats.h"

namespace ostrel::scan {

namespace {
// Enough for a few hundred entries per system call.
constexpr std::size_t listing_buffer_bytes = 32 * 1024;

// Listing buffers a thread gave back, for its next folders: a fresh one
// per folder is an allocation big enough to make glibc consolidate its
// small free blocks every time.
struct buffer_cache {
  std::vector<std::vector<char>> spare;
};
thread_local buffer_cache cache;

std::vector<char> take_buffer() {
  if (cache.spare.empty()) return std::vector<char>(listing_buffer_bytes);
  std::vector<char> b = std::move(cache.spare.back());
  cache.spare.pop_back();
  return b;
}

void give_back(std::vector<char>& b) {
  if (b.size() == listing_buffer_bytes && cache.spare.size() < 4) cache.spare.push_back(std::move(b));
  std::vector<char>().swap(b);
}
}  // namespace

dir_listing::~dir_listing() {
  close();
}

void dir_listing::close() noexcept {
  tally_.flush("statx");
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  give_back(buffer_);
  filled_ = pos_ = 0;
  at_end_ = false;
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
  entry_hint_ = 0;
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;
  if (parent && entry && parent->fd_ >= 0) {
    // The name ends its path, or comes straight from the listing: NUL-terminated.
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
    // A directory's size is about 32 bytes per entry on ext4 (its blocks
    // are never quite full), 20 on tmpfs.
    if (st.st_size > 0) entry_hint_ = static_cast<std::size_t>(st.st_size) / 32;
  }
  buffer_ = take_buffer();
  return listing_status::listed;
}

bool dir_listing::next(dir_entry& entry) {
  if (fd_ < 0 || at_end_) return false;
  while (pos_ >= filled_) {
    ssize_t n = getdents64(fd_, buffer_.data(), buffer_.size());
    if (n <= 0) {
      if (n < 0 && errno == EINTR) continue;
      // The end, or a failing read, which ends the folder's listing early.
      // The folder stays open: queries of its entries still use it.
      if (n < 0) fail_listing(errno);
      at_end_ = true;
      give_back(buffer_);
      return false;
    }
    filled_ = static_cast<std::size_t>(n);
    pos_ = 0;
  }
  const auto* d = reinterpret_cast<const struct dirent64*>(buffer_.data() + pos_);
  pos_ += d->d_reclen;
  entry = dir_entry{};
  entry.name = d->d_name;
  if (d->d_type == DT_UNKNOWN) {
    struct stat st;
    if (fstatat(fd_, d->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      entry.is_dir = S_ISDIR(st.st_mode);
      entry.special = !S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode);
    }
  } else {
    entry.is_dir = d->d_type == DT_DIR;
    entry.special = d->d_type == DT_FIFO || d->d_type == DT_SOCK || d->d_type == DT_CHR || d->d_type == DT_BLK;
  }
  return true;
}

query_outcome dir_listing::query_name(FileInfo& info, native_string_view entry_name) const {
  const char* name = entry_name.data();  // NUL-terminated
  if (!fast_) return query_file_info_at(fd_, name, info, &tally_);
  // The fast mode: the entry's own metadata (a link is not followed), no
  // call statistic.
  struct statx st;
  if (statx(fd_, name, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC,
            STATX_TYPE | STATX_INO | STATX_SIZE | STATX_MTIME | STATX_CTIME | STATX_BTIME, &st) == 0) {
    // A link is reported as itself; a FIFO, socket or device is no file.
    if (!S_ISREG(st.stx_mode) && !S_ISDIR(st.stx_mode) && !S_ISLNK(st.stx_mode)) return query_outcome::special;
    fill_from_statx(info, st, info.name_text());
    return query_outcome::filled;
  }
  return classify_errno(errno) == query_outcome::denied ? query_outcome::denied : query_outcome::missing;
}

}  // namespace ostrel::scan
