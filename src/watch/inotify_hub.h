// Linux: one inotify descriptor for the whole process, serving every watch
// session. A session's two readers (its file-mode and directory-mode loops)
// share one subscription over its tree, each taking the changes of its own
// mode; a folder watched by several subscriptions has one kernel watch,
// counted once against fs.inotify.max_user_watches.
// One pump task reads the descriptor, pairs IN_MOVED_FROM/IN_MOVED_TO by
// cookie within what it read, keeps every subscription's watches in step
// with its folders, and hands each subscription its change records.
// Included by the Linux reader only.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "change_records.h"
#include "runtime/cancellation.h"
#include "runtime/events.h"
#include "runtime/task.h"

namespace ostrel::watch::inotify {

class channel;

// What a subscription has been given and not taken yet.
struct pending_changes {
  std::vector<change_record> records;
  // Names (relative to the root) that are not valid UTF-8, not reported as
  // changes.
  std::vector<native_string> invalid_names;
  // Folders that could not be watched since the last take, and the errno
  // of the last failure.
  std::uint32_t unwatched = 0;
  std::uint32_t unwatched_error = 0;
  bool overflow = false;
  // The root went away (deleted, moved or unmounted).
  bool root_gone = false;
  // The descriptor failed (its errno): the subscription must be made again.
  std::uint32_t failed = 0;
  // Set by take() (not a change): the subscription is spent (see
  // subscription::spent) and will hand on nothing more.
  bool ended = false;
};

// One tree's watches, read by up to two readers: mode 0 takes the changes
// of files and the modifications of folders, mode 1 folders appearing,
// going and moving (as the two Windows handles of a session do).
class subscription : public std::enable_shared_from_this<subscription> {
 public:
  explicit subscription(native_string root) : root_(std::move(root)) {}
  ~subscription();
  subscription(const subscription&) = delete;
  subscription& operator=(const subscription&) = delete;

  // Takes what is pending for one mode; empty when nothing is. Any thread.
  pending_changes take(bool dir_mode);
  // Set whenever something becomes pending for that mode (and by wake()).
  async_auto_reset_event& event(bool dir_mode) noexcept { return event_[dir_mode ? 1 : 0]; }
  void wake(bool dir_mode) { event(dir_mode).set(); }
  // Whether the subscription is spent: it reported an overflow, the end of
  // its root or a failed descriptor (each reader then opens a new one), or
  // one of its readers closed. A spent subscription gathers no more
  // changes, so that a new one over the same tree repeats none of them.
  bool spent();
  // Called by a reader that closes: spends the subscription and wakes the
  // other reader, which hands on what it has and then ends its read.
  void retire();

 private:
  friend class channel;
  friend std::shared_ptr<subscription> subscribe(const native_string&, const std::atomic<bool>&, std::uint32_t&);
  native_string root_;
  std::shared_ptr<channel> channel_;
  int root_wd_ = -1;
  // Guarded by the channel's mutex: every watched folder of this tree, by
  // watch descriptor, as a path relative to the root ("" for the root).
  std::unordered_map<int, native_string> dirs_;
  pending_changes pending_[2];  // by mode; guarded by the channel's mutex
  bool spent_ = false;          // guarded by the channel's mutex
  async_auto_reset_event event_[2];
};

// Subscribes to `root` and puts watches on its whole tree. Blocks (a big
// tree, a slow file system): call it on a blocking thread. `running` stops
// the walk early. On failure returns null and sets `error` (the errno of
// the root's watch or of the descriptor).
std::shared_ptr<subscription> subscribe(const native_string& root, const std::atomic<bool>& running,
                                        std::uint32_t& error);

}  // namespace ostrel::watch::inotify
