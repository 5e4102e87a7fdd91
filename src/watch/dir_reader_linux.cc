// Linux: one inotify descriptor per loop, with a watch on every folder of
// the tree (added as folders appear, removed as they go), read when the I/O
// service reports it readable. The file-mode loop reports changes of files,
// the directory-mode loop changes of folders, as the two Windows handles do.
#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "dir_reader.h"
#include "runtime/blocking.h"
#include "runtime/io_service.h"
#include "runtime/log.h"
#include "runtime/runtime.h"
#include "runtime/strings.h"
#include "scan/scan_stats.h"
#include "watch_data.h"

namespace ostrel::watch {

namespace {

constexpr std::uint32_t folder_mask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF |
                                      IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK;
constexpr std::uint32_t file_mask = folder_mask | IN_MODIFY | IN_ATTRIB;
constexpr std::size_t read_buffer_bytes = 256 * 1024;

// Waits until the descriptor is readable, or the token is cancelled.
class readable_wait : public overlapped_operation<readable_wait> {
 public:
  readable_wait(io_service& s, int fd, cancellation_token ct) : overlapped_operation(std::move(ct)), s_(s), fd_(fd) {}
  bool start() noexcept {
    if (std::uint32_t e = s_.start_fd_wait(this, fd_)) {
      error_ = e;
      return false;
    }
    return true;
  }
  void cancel() noexcept { s_.cancel_fd_wait(this); }
  std::uint32_t result() const noexcept { return error_; }

 private:
  io_service& s_;
  int fd_;
};

class inotify_reader final : public dir_reader {
 public:
  // `running` is the session's flag: putting watches on a big tree stops
  // as soon as the session does.
  inotify_reader(native_string root, bool dir_mode, const std::atomic<bool>& running)
      : root_(std::move(root)), dir_mode_(dir_mode), running_(running) {}
  ~inotify_reader() override {
    if (fd_ >= 0) ::close(fd_);
  }

  // Returns 0 or the errno of the root's watch.
  std::uint32_t open() {
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) return static_cast<std::uint32_t>(errno);
    int wd = inotify_add_watch(fd_, root_.c_str(), mask());
    if (wd < 0) return static_cast<std::uint32_t>(errno);
    root_wd_ = wd;
    dirs_[wd] = native_string();
    watch_below(native_string());
    return 0;
  }

  task<read_outcome> read(cancellation_token token) override {
    for (;;) {
      auto io = runtime::io();
      if (!io) throw runtime_stopped();
      std::uint32_t error = co_await readable_wait(*io, fd_, token);
      if (error != 0) {
        read_outcome failed;
        failed.error = error;
        co_return failed;
      }
      co_await on_pool();  // reading and adding watches block
      read_outcome out = drain();
      if (out.what != read_outcome::kind::records || !out.records.empty()) co_return out;
    }
  }

 private:
  std::uint32_t mask() const noexcept { return dir_mode_ ? folder_mask : file_mask; }

  native_string path_of(const native_string& rel) const { return rel.empty() ? root_ : root_ + "/" + rel; }
  static native_string child(const native_string& rel, const std::string& name) {
    return rel.empty() ? name : rel + "/" + name;
  }

  // Puts a watch on every folder below `rel` (relative to the root).
  void watch_below(const native_string& rel) {
    std::vector<native_string> pending{rel};
    while (!pending.empty() && running_.load()) {
      native_string dir = std::move(pending.back());
      pending.pop_back();
      DIR* d = opendir(path_of(dir).c_str());
      if (!d) continue;  // gone or unreadable meanwhile
      while (dirent* e = readdir(d)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        bool is_dir = e->d_type == DT_DIR;
        if (e->d_type == DT_UNKNOWN) {
          struct stat st;
          is_dir = fstatat(dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
        }
        if (!is_dir) continue;
        native_string sub = child(dir, e->d_name);
        if (add_watch(sub)) pending.push_back(std::move(sub));
      }
      closedir(d);
    }
  }

  bool add_watch(const native_string& rel) {
    int wd = inotify_add_watch(fd_, path_of(rel).c_str(), mask());
    if (wd < 0) {
      if (errno == ENOSPC && !warned_limit_) {
        warned_limit_ = true;
        log::err(
            "FileWatcher: the inotify watch limit is reached (fs.inotify.max_user_watches); folders beyond it "
            "are not watched");
      }
      return false;
    }
    dirs_[wd] = rel;
    return true;
  }

  // Forgets the watches of `rel` and every folder below it.
  void unwatch_below(const native_string& rel) {
    for (auto it = dirs_.begin(); it != dirs_.end();) {
      const native_string& p = it->second;
      bool below = p == rel || (p.size() > rel.size() && p.compare(0, rel.size(), rel) == 0 && p[rel.size()] == '/');
      if (below && it->first != root_wd_) {
        inotify_rm_watch(fd_, it->first);
        it = dirs_.erase(it);
      } else {
        ++it;
      }
    }
  }

  read_outcome drain() {
    read_outcome out;
    out.what = read_outcome::kind::records;
    std::vector<unsigned char> buffer(read_buffer_bytes);
    for (;;) {
      ssize_t n = ::read(fd_, buffer.data(), buffer.size());
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN) break;
        out.what = read_outcome::kind::failed;
        out.error = static_cast<std::uint32_t>(errno);
        return out;
      }
      if (n == 0) break;
      std::vector<inotify_record> events;
      walk_inotify_events(buffer.data(), static_cast<std::size_t>(n), events);
      for (const auto& e : events) {
        if (!translate(e, out)) return out;
      }
    }
    return out;
  }

  // Adds the change of one inotify event to `out`; false when the reader
  // must end (overflow, the root went away).
  bool translate(const inotify_record& e, read_outcome& out) {
    if (e.mask & IN_Q_OVERFLOW) {
      out.what = read_outcome::kind::overflow;
      out.records.clear();
      return false;
    }
    if (e.wd == root_wd_ && (e.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED))) {
      out.what = read_outcome::kind::failed;
      out.error = ENOENT;
      out.records.clear();
      return false;
    }
    auto dir = dirs_.find(e.wd);
    if (dir == dirs_.end() || e.name.empty()) {
      if (e.mask & IN_IGNORED) dirs_.erase(e.wd);
      return true;
    }
    const bool is_dir = (e.mask & IN_ISDIR) != 0;
    native_string rel = child(dir->second, e.name);
    // Both loops keep their watches in step with the folders.
    if (is_dir && (e.mask & (IN_CREATE | IN_MOVED_TO)) && add_watch(rel)) watch_below(rel);
    if (is_dir && (e.mask & (IN_DELETE | IN_MOVED_FROM))) unwatch_below(rel);
    if (is_dir != dir_mode_) return true;
    std::uint32_t action = 0;
    if (e.mask & IN_CREATE) {
      action = action_added;
    } else if (e.mask & IN_DELETE) {
      action = action_removed;
    } else if (e.mask & IN_MOVED_FROM) {
      action = action_renamed_old;
    } else if (e.mask & IN_MOVED_TO) {
      action = action_renamed_new;
    } else if (e.mask & (IN_MODIFY | IN_ATTRIB)) {
      action = action_modified;
    }
    if (action == 0) return true;
    // A write often comes as several modify events in a row: one is enough.
    if (action == action_modified && !out.records.empty() && out.records.back().action == action &&
        out.records.back().name == rel) {
      return true;
    }
    out.records.push_back({action, std::move(rel)});
    return true;
  }

  native_string root_;
  bool dir_mode_;
  const std::atomic<bool>& running_;
  int fd_ = -1;
  int root_wd_ = -1;
  bool warned_limit_ = false;
  std::unordered_map<int, native_string> dirs_;
};

}  // namespace

open_result open_dir_reader(const WatchData& w, bool dir_mode) {
  auto start = std::chrono::steady_clock::now();
  auto reader = std::make_unique<inotify_reader>(w.rootPath, dir_mode, w.running);
  std::uint32_t error = reader->open();
  auto elapsed = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
  scan::record_call_stat("CreateFileW(WatchLoop)", error ? "WatchLoop" : "", elapsed, static_cast<std::int32_t>(error));
  open_result r;
  if (error) {
    r.error = error;
  } else {
    r.reader = std::move(reader);
  }
  return r;
}

std::string system_message(std::uint32_t code) {
  return system_error_text(static_cast<int>(code));
}

}  // namespace ostrel::watch
