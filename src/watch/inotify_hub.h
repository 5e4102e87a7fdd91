// Linux: one inotify descriptor for the whole process, serving every watch
// session. Each reader (a session's file-mode or directory-mode loop) is a
// subscription over its own tree; a folder watched by several subscriptions
// has one kernel watch, counted once against fs.inotify.max_user_watches.
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
  bool any() const noexcept {
    return !records.empty() || !invalid_names.empty() || unwatched || overflow || root_gone || failed;
  }
};

class subscription : public std::enable_shared_from_this<subscription> {
 public:
  subscription(native_string root, bool dir_mode) : root_(std::move(root)), dir_mode_(dir_mode) {}
  ~subscription();
  subscription(const subscription&) = delete;
  subscription& operator=(const subscription&) = delete;

  // Takes what is pending; empty when nothing is. Any thread.
  pending_changes take();
  // Set whenever something becomes pending (and by wake()).
  async_auto_reset_event& event() noexcept { return event_; }
  void wake() { event_.set(); }

 private:
  friend class channel;
  friend std::shared_ptr<subscription> subscribe(const native_string&, bool, const std::atomic<bool>&, std::uint32_t&);
  native_string root_;
  bool dir_mode_;
  std::shared_ptr<channel> channel_;
  int root_wd_ = -1;
  // Guarded by the channel's mutex: every watched folder of this tree, by
  // watch descriptor, as a path relative to the root ("" for the root).
  std::unordered_map<int, native_string> dirs_;
  pending_changes pending_;  // guarded by the channel's mutex
  async_auto_reset_event event_;
};

// Subscribes to `root` in one mode and puts watches on its whole tree.
// Blocks (a big tree, a slow file system): call it on a blocking thread.
// `running` stops the walk early. On failure returns null and sets `error`
// (the errno of the root's watch or of the descriptor).
std::shared_ptr<subscription> subscribe(const native_string& root, bool dir_mode, const std::atomic<bool>& running,
                                        std::uint32_t& error);

}  // namespace ostrel::watch::inotify
