// Linux metadata: one statx per entry, following a symbolic link as the
// Windows open does. Hidden means a name starting with "."; there is no
// system attribute.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>

#include "file_query.h"
#include "file_query_linux.h"
#include "runtime/log.h"
#include "scan_stats.h"

namespace ostrel::scan {

namespace {
// Only what the record needs: the type (not the permission bits), the
// file id, the size and the three times.
constexpr unsigned statx_mask = STATX_TYPE | STATX_INO | STATX_SIZE | STATX_MTIME | STATX_CTIME | STATX_BTIME;

double to_ms(const struct statx_timestamp& t) {
  return unix_time_to_ms(t.tv_sec, t.tv_nsec);
}
}  // namespace

void fill_from_statx(FileInfo& info, const struct statx& st, std::string_view name) {
  info.isFile = !S_ISDIR(st.stx_mode);
  info.hidden = !name.empty() && name.front() == '.';
  info.isSystem = false;
  info.size = st.stx_size;
  info.ino = st.stx_ino;
  info.ctimeMs = to_ms(st.stx_ctime);
  info.mtimeMs = to_ms(st.stx_mtime);
  info.birthtimeMs = (st.stx_mask & STATX_BTIME) ? to_ms(st.stx_btime) : 0;
}

query_outcome classify_errno(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:
      return query_outcome::missing;
    case EACCES:
    case EPERM:
      return query_outcome::denied;
    default:
      return query_outcome::retry;
  }
}

query_outcome query_file_info_at(int dir_fd, const char* name, FileInfo& info, call_tally* tally) {
  struct statx st;
  auto start = std::chrono::steady_clock::now();
  int rc = statx(dir_fd, name, 0, statx_mask, &st);
  int error = rc == 0 ? 0 : errno;
  auto elapsed = std::chrono::steady_clock::now() - start;
  auto ms = static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
  if (tally && error == 0) {
    tally->add(ms);
  } else {
    record_call_stat("statx", "FillFileInfoAsync", ms, error);
  }
  if (rc == 0) {
    // A link was followed: what it leads to decides.
    if (!S_ISREG(st.stx_mode) && !S_ISDIR(st.stx_mode)) return query_outcome::special;
    fill_from_statx(info, st, info.name_text());
    return query_outcome::filled;
  }
  query_outcome outcome = classify_errno(error);
  if (outcome == query_outcome::retry) {
    // The walk's records carry no native path (it queries by name): their
    // absolutePath is the same text.
    const native_string& path = info.native_path.empty() ? info.absolutePath : info.native_path;
    log::wout(L"FillFileInfoAsync: statx(" + native_to_wide(path) + L")failed, error code: " + std::to_wstring(error));
  }
  return outcome;
}

query_outcome query_file_info(FileInfo& info) {
  return query_file_info_at(AT_FDCWD, info.native_path.c_str(), info);
}

}  // namespace ostrel::scan
