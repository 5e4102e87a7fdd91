// Linux: a session's two loops read one subscription to the process's one
// inotify descriptor (inotify_hub.h), which keeps a watch on every folder
// of the tree and hands each loop its change records: the file-mode loop
// gets the changes of files and the modifications of folders, the
// directory-mode loop folders appearing, going and moving, as the two
// Windows handles do.
#include <limits.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <optional>

#include "dir_reader.h"
#include "inotify_hub.h"
#include "runtime/blocking.h"
#include "runtime/log.h"
#include "runtime/strings.h"
#include "scan/scan_stats.h"
#include "watch_data.h"

namespace ostrel::watch {

namespace {

class inotify_reader final : public dir_reader {
 public:
  inotify_reader(std::shared_ptr<inotify::subscription> sub, bool dir_mode)
      : sub_(std::move(sub)), dir_mode_(dir_mode) {}
  // The other loop, if it still reads this subscription, opens a new one.
  ~inotify_reader() override { sub_->retire(); }

  task<read_outcome> read(cancellation_token token) override {
    std::shared_ptr<inotify::subscription> sub = sub_;
    const bool mode = dir_mode_;
    // A cancellation wakes the wait below.
    cancellation_registration wake(token, [sub, mode] { sub->wake(mode); });
    for (;;) {
      if (token.is_cancellation_requested()) throw operation_cancelled();
      inotify::pending_changes more = sub->take(mode);
      merge(more);
      if (std::optional<read_outcome> out = next()) co_return std::move(*out);
      co_await sub->event(mode);
      // Woken by the pump, or by a cancellation on the main thread: go on
      // on a pool worker, never there.
      co_await on_pool();
    }
  }

 private:
  void merge(inotify::pending_changes& more) {
    if (carry_.records.empty()) {
      carry_.records = std::move(more.records);
    } else {
      for (auto& r : more.records) carry_.records.push_back(std::move(r));
    }
    for (auto& n : more.invalid_names) carry_.invalid_names.push_back(std::move(n));
    carry_.unwatched += more.unwatched;
    if (more.unwatched_error) carry_.unwatched_error = more.unwatched_error;
    carry_.overflow = carry_.overflow || more.overflow;
    carry_.root_gone = carry_.root_gone || more.root_gone;
    if (more.failed) carry_.failed = more.failed;
    carry_.ended = carry_.ended || more.ended;
  }

  // What to hand on: the records read before an overflow or the root's
  // end first, then the end.
  std::optional<read_outcome> next() {
    read_outcome out;
    if (!carry_.records.empty() || !carry_.invalid_names.empty() || carry_.unwatched) {
      out.what = read_outcome::kind::records;
      out.records = std::move(carry_.records);
      out.invalid_names = std::move(carry_.invalid_names);
      out.unwatched_folders = carry_.unwatched;
      out.unwatched_error = carry_.unwatched_error;
      carry_.records.clear();
      carry_.invalid_names.clear();
      carry_.unwatched = 0;
      return out;
    }
    if (carry_.root_gone) {
      carry_.root_gone = false;
      out.what = read_outcome::kind::failed;
      out.error = ENOENT;
      return out;
    }
    if (carry_.overflow) {
      carry_.overflow = false;
      out.what = read_outcome::kind::overflow;
      return out;
    }
    if (carry_.failed) {
      out.what = read_outcome::kind::failed;
      out.error = carry_.failed;
      carry_.failed = 0;
      return out;
    }
    if (carry_.ended) {
      // The other loop closed the subscription: this one opens a new one.
      out.what = read_outcome::kind::cancelled;
      return out;
    }
    return std::nullopt;
  }

  std::shared_ptr<inotify::subscription> sub_;
  const bool dir_mode_;
  inotify::pending_changes carry_;
};

}  // namespace

open_result open_dir_reader(const WatchData& w, bool dir_mode) {
  auto start = std::chrono::steady_clock::now();
  std::uint32_t error = 0;
  std::shared_ptr<inotify::subscription> sub;
  {
    // The loop that opens first puts the watches; the other, waiting here
    // meanwhile, reads the same subscription while it is not spent.
    std::lock_guard lock(w.readers.mutex);
    sub = std::static_pointer_cast<inotify::subscription>(w.readers.shared.lock());
    if (!sub || sub->spent()) {
      sub = inotify::subscribe(w.rootPath, w.running, error);
      w.readers.shared = sub;
    }
  }
  auto elapsed = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
  scan::record_call_stat("CreateFileW(WatchLoop)", error ? "WatchLoop" : "", elapsed, static_cast<std::int32_t>(error));
  open_result r;
  if (sub) {
    r.reader = std::make_unique<inotify_reader>(std::move(sub), dir_mode);
  } else {
    r.error = error ? error : EIO;
  }
  return r;
}

std::string system_message(std::uint32_t code) {
  return system_error_text(static_cast<int>(code));
}

bool special_file(const native_string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  return !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode);
}

bool root_present(const native_string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool path_beyond_limit(const native_string& path) noexcept {
  return path.size() >= PATH_MAX;
}

}  // namespace ostrel::watch
