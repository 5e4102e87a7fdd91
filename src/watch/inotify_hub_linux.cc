#include <fcntl.h>
#include <limits.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "runtime/blocking.h"
#include "inotify_hub.h"
#include "runtime/io_service.h"
#include "runtime/log.h"
#include "runtime/runtime.h"
#include "runtime/spawn.h"

namespace ostrel::watch::inotify {

namespace {

// One mask for every watch (a second add on a watched folder replaces the
// mask, so all subscriptions must ask for the same). Folders are watched
// through a descriptor opened without following links, so the watch itself
// may follow the /proc/self/fd link.
constexpr std::uint32_t watch_mask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF |
                                     IN_MOVE_SELF | IN_MODIFY | IN_ATTRIB | IN_ONLYDIR | IN_EXCL_UNLINK;
constexpr std::size_t read_buffer_bytes = 256 * 1024;
// Reads per drain before the records are handed on, so that a writer that
// never pauses cannot hold every session's records back.
constexpr int reads_per_drain = 64;

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

native_string child(const native_string& rel, const std::string& name) {
  return rel.empty() ? name : rel + "/" + name;
}

bool below_or_same(const native_string& p, const native_string& rel) {
  return p == rel || (p.size() > rel.size() && p.compare(0, rel.size(), rel) == 0 && p[rel.size()] == '/');
}

struct fd_closer {
  int fd = -1;
  ~fd_closer() {
    if (fd >= 0) ::close(fd);
  }
};

// Opens a folder at `path` for listing, also when the path is longer than
// the system takes in one call (component by component then). The last
// component is a link only for the root, which may be one.
int open_folder(const native_string& path, bool follow_last) {
  const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (follow_last ? 0 : O_NOFOLLOW);
  if (path.size() < PATH_MAX) return ::open(path.c_str(), flags);
  int dir = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::size_t at = 1;
  while (dir >= 0 && at < path.size()) {
    std::size_t end = path.find('/', at);
    if (end == native_string::npos) end = path.size();
    std::string name = path.substr(at, end - at);
    at = end + 1;
    if (name.empty()) continue;
    const bool last = end >= path.size();
    int next = ::openat(dir, name.c_str(), last ? flags : O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int saved = errno;
    ::close(dir);
    errno = saved;
    dir = next;
  }
  return dir;
}

// A folder that just got a watch: its descriptor and where it lies below
// the folder the walk started at.
struct watched {
  int wd;
  native_string rel;  // "" for the start folder
};

// Subscriptions to wake after the mutex is released, with the modes (bit 0:
// mode 0, bit 1: mode 1) that got something.
using wake_list = std::unordered_map<subscription*, unsigned>;
constexpr unsigned both_modes = 3;

}  // namespace

// The process's inotify descriptor and every subscription over it.
class channel : public std::enable_shared_from_this<channel> {
 public:
  explicit channel(int fd) : fd_(fd) {}
  ~channel() { ::close(fd_); }

  // Adds `s` to the channel; false when the channel is shutting down.
  bool join(subscription* s) {
    std::lock_guard lock(mutex_);
    if (stopping_) return false;
    subs_.insert(s);
    return true;
  }

  // Puts watches on the folder open in `dir` (named `path`) and on every
  // folder below it, without following links. Appends what was watched;
  // returns how many folders could not be watched, and the last reason.
  std::uint32_t watch_tree(int dir, const native_string& path, std::vector<watched>& out, int& error,
                           const std::atomic<bool>* running) {
    std::uint32_t failed = 0;
    struct frame {
      DIR* d;
      native_string rel;
    };
    std::vector<frame> stack;
    auto visit = [&](int fd, native_string rel) {
      int wd = add_watch(fd, rel.empty() ? path : path + "/" + rel);
      if (wd < 0) {
        int e = errno;
        if (e == ENOENT || e == ENOTDIR) {  // gone meanwhile
          ::close(fd);
          return;
        }
        ++failed;
        error = e;
      } else {
        out.push_back({wd, rel});
      }
      // Listed even when the watch failed, to count what is not watched.
      DIR* d = fdopendir(fd);
      if (!d) {
        ::close(fd);
        return;
      }
      stack.push_back({d, std::move(rel)});
    };
    // Depth first, reading each folder entry by entry: only the folders on
    // the way down are open at once, never a whole level of a wide tree.
    visit(dir, native_string());
    while (!stack.empty()) {
      if (running && !running->load()) break;
      frame& f = stack.back();
      dirent* e = readdir(f.d);
      if (!e) {
        closedir(f.d);
        stack.pop_back();
        continue;
      }
      if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
      if (e->d_type != DT_DIR && e->d_type != DT_UNKNOWN) continue;
      int fd = ::openat(dirfd(f.d), e->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
      if (fd < 0) {
        int err = errno;
        // Not a folder, a link, or gone: nothing to watch. A folder that
        // may not be opened is not watched: counted.
        if (err == EACCES || err == EPERM || err == EMFILE || err == ENFILE || err == ENOMEM) {
          ++failed;
          error = err;
        }
        continue;
      }
      visit(fd, child(f.rel, e->d_name));  // may grow the stack: `f` is not used after
    }
    for (auto& f : stack) closedir(f.d);
    return failed;
  }

  // Registers watched folders (relative to `base`, a folder of `s`'s tree)
  // for `s`. Caller holds the mutex.
  void register_dirs(subscription& s, const native_string& base, const std::vector<watched>& dirs) {
    for (const auto& d : dirs) {
      native_string rel = d.rel.empty() ? base : (base.empty() ? d.rel : base + "/" + d.rel);
      auto [it, inserted] = s.dirs_.emplace(d.wd, rel);
      if (!inserted) {
        it->second = std::move(rel);
        continue;
      }
      watchers_.emplace(d.wd, &s);
    }
  }

  // Forgets `s`'s watch `wd`; removes the kernel's watch when no
  // subscription uses it any more. Caller holds the mutex.
  void release_watch(subscription& s, int wd) {
    bool mine = false;
    bool others = false;
    for (auto [it, last] = watchers_.equal_range(wd); it != last;) {
      if (it->second == &s) {
        it = watchers_.erase(it);
        mine = true;
      } else {
        others = true;
        ++it;
      }
    }
    if (!mine || others) return;
    if (walks_ > 0) {
      // A subscription's walk, outside the mutex, may have just been given
      // this very watch for a folder it shares: removing it now would leave
      // that subscription on a dead watch. Removed once no walk is running,
      // if nobody took it by then.
      unused_.push_back(wd);
      return;
    }
    inotify_rm_watch(fd_, wd);
  }

  // Removes the watches released during walks that nobody took since.
  // Caller holds the mutex.
  void remove_unused() {
    if (walks_ > 0) return;
    for (int wd : unused_) {
      if (watchers_.count(wd) == 0) inotify_rm_watch(fd_, wd);
    }
    unused_.clear();
  }

  void leave(subscription& s) {
    bool stop = false;
    {
      std::lock_guard lock(mutex_);
      for (const auto& [wd, rel] : s.dirs_) release_watch(s, wd);
      s.dirs_.clear();
      subs_.erase(&s);
      if (subs_.empty() && !stopping_) {
        stopping_ = true;
        stop = true;
      }
    }
    if (stop) pump_stop_.request_cancellation();
  }

  // Subscribes `s` (already joined) to its tree. Blocking.
  std::uint32_t watch_root(subscription& s, const std::atomic<bool>& running) {
    fd_closer root{open_folder(s.root_, true)};
    if (root.fd < 0) return static_cast<std::uint32_t>(errno);
    std::vector<watched> dirs;
    int error = 0;
    const int fd = root.fd;
    root.fd = -1;  // watch_tree owns it now
    {
      std::lock_guard lock(mutex_);
      ++walks_;
    }
    std::uint32_t failed = watch_tree(fd, s.root_, dirs, error, &running);
    std::lock_guard lock(mutex_);
    --walks_;
    std::uint32_t result = 0;
    if (dirs.empty() || !dirs.front().rel.empty()) {
      // The root itself could not be watched (or went away meanwhile).
      result = static_cast<std::uint32_t>(error ? error : ENOENT);
      // What the walk was given is not kept: released like a leave.
      for (const auto& d : dirs) {
        if (watchers_.count(d.wd) == 0) unused_.push_back(d.wd);
      }
    } else {
      s.root_wd_ = dirs.front().wd;
      register_dirs(s, native_string(), dirs);
      if (failed) note_unwatched(s, failed, error);
    }
    remove_unused();
    return result;
  }

  void start_pump() { spawn(pump(shared_from_this()), runtime::alive()); }

 private:
  int add_watch(int fd, const native_string& path) {
    std::string proc = "/proc/self/fd/" + std::to_string(fd);
    int wd = inotify_add_watch(fd_, proc.c_str(), watch_mask);
    if (wd < 0 && errno == ENOENT && path.size() < PATH_MAX) {
      // No /proc: the path itself, not following a link it may have become.
      wd = inotify_add_watch(fd_, path.c_str(), watch_mask | IN_DONT_FOLLOW);
    }
    return wd;
  }

  // Reported by the directory-mode reader only.
  void note_unwatched(subscription& s, std::uint32_t count, int error) {
    s.pending_[1].unwatched += count;
    s.pending_[1].unwatched_error = static_cast<std::uint32_t>(error);
  }

  // Ends `s` with a notice both readers get. Caller holds the mutex.
  template <typename Mark>
  void spend(subscription& s, wake_list& woken, Mark mark) {
    for (auto& p : s.pending_) mark(p);
    s.spent_ = true;
    woken[&s] |= both_modes;
  }

  static task<void> pump(std::shared_ptr<channel> self) {
    cancellation_token token = self->pump_stop_.token();
    try {
      for (;;) {
        auto io = runtime::io();
        if (!io) break;
        std::uint32_t error = co_await readable_wait(*io, self->fd_, token);
        if (error != 0) {
          log::err_code("FileWatcher: waiting for the inotify descriptor failed, error code: ", error);
          self->fail_all(error);
          break;
        }
        // Reading, and putting watches on new folders, may block.
        co_await on_blocking(token);
        self->drain();
      }
    } catch (const operation_cancelled&) {
    } catch (const std::exception& e) {
      log::err_value("FileWatcher: the inotify reader stopped: ", e.what());
      self->fail_all(EIO);
    }
  }

  // The pump ended while subscriptions remain: they fail and reopen on a
  // new channel.
  void fail_all(std::uint32_t error) {
    wake_list failed;
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      for (subscription* s : subs_) spend(*s, failed, [&](pending_changes& p) { p.failed = error; });
    }
    wake(failed);
  }

  // Wakes the subscriptions in `woken` that still live. Not under the
  // mutex: a woken reader resumes on this thread and takes its records.
  // A subscription may be leaving meanwhile on another thread; each is
  // held while it is woken, and one already ending is skipped.
  void wake(const wake_list& woken) {
    std::vector<std::pair<std::shared_ptr<subscription>, unsigned>> held;
    {
      std::lock_guard lock(mutex_);
      for (const auto& [s, modes] : woken) {
        if (subs_.count(s) == 0) continue;
        if (auto alive = s->weak_from_this().lock()) held.emplace_back(std::move(alive), modes);
      }
    }
    for (auto& [s, modes] : held) {
      if (modes & 1) s->wake(false);
      if (modes & 2) s->wake(true);
    }
  }

  void drain() {
    std::vector<inotify_record> events;
    std::vector<unsigned char> buffer(read_buffer_bytes);
    for (int reads = 0; reads < reads_per_drain; ++reads) {
      ssize_t n = ::read(fd_, buffer.data(), buffer.size());
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN) log::err_code("FileWatcher: reading the inotify descriptor failed, error code: ", errno);
        break;
      }
      if (n == 0) break;
      walk_inotify_events(buffer.data(), static_cast<std::size_t>(n), events);
    }
    if (events.empty()) return;
    // IN_MOVED_FROM and IN_MOVED_TO of one move carry the same cookie.
    std::vector<std::ptrdiff_t> partner(events.size(), -1);
    {
      std::unordered_map<std::uint32_t, std::size_t> from;
      for (std::size_t i = 0; i < events.size(); ++i) {
        const auto& e = events[i];
        if (e.cookie == 0) continue;
        if (e.mask & IN_MOVED_FROM) {
          from[e.cookie] = i;
        } else if (e.mask & IN_MOVED_TO) {
          auto it = from.find(e.cookie);
          if (it != from.end()) {
            partner[i] = static_cast<std::ptrdiff_t>(it->second);
            partner[it->second] = static_cast<std::ptrdiff_t>(i);
            from.erase(it);
          }
        }
      }
    }
    wake_list woken;
    {
      std::lock_guard lock(mutex_);
      std::vector<subscription*> overflowed;
      for (std::size_t i = 0; i < events.size(); ++i) apply(events, partner, i, woken, overflowed);
      for (subscription* s : overflowed) s->spent_ = true;
    }
    wake(woken);
  }

  // Whether `s` watches the folder of the event at `i`'s partner, so that
  // the move stays inside its tree.
  bool paired_for(const subscription& s, const std::vector<inotify_record>& events,
                  const std::vector<std::ptrdiff_t>& partner, std::size_t i) const {
    return partner[i] >= 0 && s.dirs_.count(events[static_cast<std::size_t>(partner[i])].wd) != 0;
  }

  void apply(const std::vector<inotify_record>& events, const std::vector<std::ptrdiff_t>& partner, std::size_t i,
             wake_list& woken, std::vector<subscription*>& overflowed) {
    const inotify_record& e = events[i];
    auto root_gone = [](pending_changes& p) { p.root_gone = true; };
    if (e.mask & IN_Q_OVERFLOW) {
      // Spent at the end of this drain: what was read after the overflow
      // in the same drain is still handed on, before the notice.
      for (subscription* s : subs_) {
        if (s->spent_) continue;
        for (auto& p : s->pending_) p.overflow = true;
        woken[s] |= both_modes;
        overflowed.push_back(s);
      }
      return;
    }
    // Copied: registrations below may change the map.
    std::vector<subscription*> subs;
    auto [first, last] = watchers_.equal_range(e.wd);
    for (auto it = first; it != last; ++it) subs.push_back(it->second);
    if (subs.empty()) return;
    if (e.mask & IN_IGNORED) {
      for (subscription* s : subs) {
        s->dirs_.erase(e.wd);
        if (e.wd == s->root_wd_ && !s->spent_) spend(*s, woken, root_gone);
      }
      watchers_.erase(e.wd);
      return;
    }
    if (e.name.empty()) {
      // About the watched folder itself: its parent's watch reports it,
      // except for a root, which has none.
      if (e.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
        for (subscription* s : subs) {
          if (e.wd == s->root_wd_ && !s->spent_) spend(*s, woken, root_gone);
        }
      }
      return;
    }
    const bool is_dir = (e.mask & IN_ISDIR) != 0;
    if (is_dir && (e.mask & (IN_CREATE | IN_MOVED_TO))) follow_new_folder(events, partner, i, subs);
    for (subscription* s : subs) {
      if (s->spent_) continue;
      auto dir = s->dirs_.find(e.wd);
      if (dir == s->dirs_.end()) continue;
      const bool paired = (e.mask & (IN_MOVED_FROM | IN_MOVED_TO)) && paired_for(*s, events, partner, i);
      native_string rel = child(dir->second, e.name);
      if (is_dir && (e.mask & IN_MOVED_FROM) && !paired) {
        // Moved out of this tree: its watches go.
        std::vector<int> below;
        for (const auto& [wd, p] : s->dirs_) {
          if (wd != s->root_wd_ && below_or_same(p, rel)) below.push_back(wd);
        }
        for (int wd : below) {
          s->dirs_.erase(wd);
          release_watch(*s, wd);
        }
      }
      std::uint32_t action = 0;
      if (e.mask & IN_CREATE) {
        action = action_added;
      } else if (e.mask & IN_DELETE) {
        action = action_removed;
      } else if (e.mask & IN_MOVED_FROM) {
        action = paired ? action_renamed_old : action_removed;
      } else if (e.mask & IN_MOVED_TO) {
        action = paired ? action_renamed_new : action_added;
      } else if (e.mask & (IN_MODIFY | IN_ATTRIB)) {
        action = action_modified;
      }
      if (action == 0) continue;
      // As on Windows: the folder reader sees folders appear, go and move;
      // the file reader everything else, changes of folders included.
      const bool for_dir_reader = is_dir && action != action_modified;
      auto& pending = s->pending_[for_dir_reader ? 1 : 0];
      const unsigned mode_bit = for_dir_reader ? 2u : 1u;
      std::size_t bad = invalid_name_prefix(rel);
      if (bad != native_string::npos) {
        pending.invalid_names.push_back(rel.substr(0, bad));
        woken[s] |= mode_bit;
        continue;
      }
      // A write often comes as several modify events in a row: one is enough.
      if (action == action_modified && !pending.records.empty() && pending.records.back().action == action &&
          pending.records.back().name == rel) {
        continue;
      }
      pending.records.push_back({action, std::move(rel)});
      woken[s] |= mode_bit;
    }
  }

  // A folder appeared in the folder of event `i`: each subscription that
  // sees it gets watches on it and everything below, before anyone lists
  // it, so that nothing created in it can be missed. A folder moved inside
  // a tree keeps its watches under the new name.
  void follow_new_folder(const std::vector<inotify_record>& events, const std::vector<std::ptrdiff_t>& partner,
                         std::size_t i, const std::vector<subscription*>& subs) {
    const inotify_record& e = events[i];
    std::vector<std::pair<subscription*, native_string>> walk_for;
    native_string path;
    for (subscription* s : subs) {
      if (s->spent_) continue;  // hands on nothing more: not worth a walk
      auto dir = s->dirs_.find(e.wd);
      if (dir == s->dirs_.end()) continue;
      native_string rel = child(dir->second, e.name);
      if ((e.mask & IN_MOVED_TO) && paired_for(*s, events, partner, i)) {
        const auto& from = events[static_cast<std::size_t>(partner[i])];
        native_string old_rel = child(s->dirs_[from.wd], from.name);
        bool moved = false;
        for (auto& [wd, p] : s->dirs_) {
          if (wd == s->root_wd_ || !below_or_same(p, old_rel)) continue;
          p = rel + p.substr(old_rel.size());
          moved = true;
        }
        if (moved) continue;
      }
      if (path.empty()) path = rel.empty() ? s->root_ : s->root_ + "/" + rel;
      walk_for.emplace_back(s, std::move(rel));
    }
    if (walk_for.empty()) return;
    int fd = open_folder(path, false);
    if (fd < 0) return;  // gone, or no folder any more: nothing to watch
    // Already watched under this name (an earlier walk reached it): the
    // walk that registered it covered what lies below.
    int top = add_watch(fd, path);
    if (top >= 0) {
      walk_for.erase(std::remove_if(walk_for.begin(), walk_for.end(),
                                    [&](const auto& c) {
                                      auto known = c.first->dirs_.find(top);
                                      return known != c.first->dirs_.end() && known->second == c.second;
                                    }),
                     walk_for.end());
    }
    if (walk_for.empty()) {
      ::close(fd);
      return;
    }
    std::vector<watched> dirs;
    int error = 0;
    std::uint32_t failed = watch_tree(fd, path, dirs, error, nullptr);
    for (auto& [s, rel] : walk_for) {
      register_dirs(*s, rel, dirs);
      if (failed) note_unwatched(*s, failed, error);
    }
  }

  const int fd_;
  std::mutex mutex_;
  bool stopping_ = false;
  std::unordered_set<subscription*> subs_;
  // Every watched folder, with the subscriptions that watch it.
  // (One entry per pair: most folders have one subscription.)
  std::unordered_multimap<int, subscription*> watchers_;
  // Subscriptions walking their tree outside the mutex, and the watches
  // released meanwhile (see release_watch).
  int walks_ = 0;
  std::vector<int> unused_;
  cancellation_source pump_stop_;

  friend class subscription;
};

namespace {

struct hub_state {
  std::mutex mutex;
  std::weak_ptr<channel> current;
};

// Never freed: a late thread may still reach it at exit.
hub_state& hub() {
  static hub_state* state = new hub_state;
  return *state;
}

}  // namespace

subscription::~subscription() {
  if (channel_) channel_->leave(*this);
}

pending_changes subscription::take(bool dir_mode) {
  pending_changes out;
  if (!channel_) return out;
  std::lock_guard lock(channel_->mutex_);
  std::swap(out, pending_[dir_mode ? 1 : 0]);
  out.ended = spent_;
  return out;
}

bool subscription::spent() {
  if (!channel_) return true;
  std::lock_guard lock(channel_->mutex_);
  return spent_;
}

void subscription::retire() {
  if (!channel_) return;
  {
    std::lock_guard lock(channel_->mutex_);
    spent_ = true;
  }
  wake(false);
  wake(true);
}

std::shared_ptr<subscription> subscribe(const native_string& root, const std::atomic<bool>& running,
                                        std::uint32_t& error) {
  error = 0;
  auto s = std::make_shared<subscription>(root);
  {
    std::lock_guard lock(hub().mutex);
    std::shared_ptr<channel> ch = hub().current.lock();
    if (!ch || !ch->join(s.get())) {
      int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
      if (fd < 0) {
        error = static_cast<std::uint32_t>(errno);
        return nullptr;
      }
      ch = std::make_shared<channel>(fd);
      ch->join(s.get());
      hub().current = ch;
      ch->start_pump();
    }
    s->channel_ = std::move(ch);
  }
  error = s->channel_->watch_root(*s, running);
  if (error) return nullptr;  // leaves the channel
  return s;
}

}  // namespace ostrel::watch::inotify
