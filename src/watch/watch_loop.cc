#include "watch_loop.h"

#include <chrono>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>
#include <utility>

#include "dir_reader.h"
#include "runtime/blocking.h"
#include "runtime/events.h"
#include "runtime/log.h"
#include "runtime/runtime.h"
#include "runtime/spawn.h"
#include "runtime/strings.h"
#include "scan/dir_listing.h"
#include "scan/file_query.h"

namespace ostrel::watch {

namespace {

constexpr auto back_off = std::chrono::milliseconds(1000);

// Batches from a reader task to its loop. One producer, one consumer.
class async_message_event {
 public:
  void push(std::shared_ptr<read_outcome> batch) {
    {
      std::lock_guard lock(mutex_);
      queue_.push_back(std::move(batch));
    }
    event_.set();
  }
  // Batches not yet taken are dropped on purpose: a closed reader's changes
  // are never reported.
  void close() {
    {
      std::lock_guard lock(mutex_);
      closed_ = true;
      queue_.clear();
    }
    event_.set();
  }
  // The next batch, or null once the queue is closed and empty.
  task<std::shared_ptr<read_outcome>> pop() {
    for (;;) {
      co_await event_;
      std::lock_guard lock(mutex_);
      if (!queue_.empty()) {
        auto front = std::move(queue_.front());
        queue_.pop_front();
        if (!queue_.empty()) event_.set();
        co_return front;
      }
      if (closed_) co_return nullptr;
    }
  }
  // How the reader ended, and its error (set before close()).
  read_outcome::kind ended = read_outcome::kind::cancelled;
  std::uint32_t error = 0;
  bool permanent = false;

 private:
  std::mutex mutex_;
  std::deque<std::shared_ptr<read_outcome>> queue_;
  async_auto_reset_event event_;
  bool closed_ = false;
};

// Issues reads one after another until one ends otherwise than with
// records; a new read starts only once the previous batch is queued.
task<void> ReadChangesTask(std::shared_ptr<WatchData> w, std::shared_ptr<dir_reader> reader,
                           std::shared_ptr<async_message_event> queue) {
  read_outcome::kind end = read_outcome::kind::cancelled;
  std::uint32_t error = 0;
  bool permanent = false;
  for (;;) {
    auto source = w->new_read_source();
    std::shared_ptr<read_outcome> batch;
    try {
      batch = std::make_shared<read_outcome>(co_await reader->read(source->token()));
    } catch (const operation_cancelled&) {
      batch = std::make_shared<read_outcome>();
      batch->what = read_outcome::kind::cancelled;
    } catch (const std::exception& e) {
      log::err_value("ReadDirectoryChangeOperation::get_result() failed: ", e.what());
      batch = std::make_shared<read_outcome>();
      batch->what = read_outcome::kind::failed;
      batch->error = 996;
    }
    w->forget_read_source(source);
    if (batch->what != read_outcome::kind::records) {
      end = batch->what;
      error = batch->error;
      permanent = batch->permanent;
      break;
    }
    queue->push(std::move(batch));
  }
  queue->ended = end;
  queue->error = error;
  queue->permanent = permanent;
  queue->close();
}

std::vector<native_string> components_of(native_string_view name) {
  std::vector<native_string> out;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= name.size(); ++i) {
    if (i == name.size() || name[i] == scan::native_separator || name[i] == '/') {
      if (i > start) out.emplace_back(name.substr(start, i - start));
      start = i + 1;
    }
  }
  return out;
}

// The component patterns: a name any of whose components matches an
// ignoreDirRegs expression is dropped, however deep.
bool ignored_component(WatchData& w, const std::vector<native_string>& components) {
  for (const auto& c : components) {
    if (scan::ignoreDir(w.filters, c)) return true;
  }
  return false;
}

// The path filter: in fine-grained mode an item must lie inside a folder
// that one rule selects (each of the rule's levels fully matching the
// folder at that depth); returns that rule. Outside it every path passes.
bool path_rejected(WatchData& w, const std::vector<native_string>& components, scan::ScanRule*& rule) {
  rule = nullptr;
  if (!w.filters.fine_grained()) return false;
  const std::size_t folders = components.empty() ? 0 : components.size() - 1;
  for (auto& r : w.filters.rules) {
    if (r.dir_regs.size() > folders) continue;
    bool all = true;
    for (std::size_t i = 0; i < r.dir_regs.size() && all; ++i) all = r.dir_regs[i].full_match(components[i]);
    if (all) {
      rule = &r;
      return false;
    }
  }
  return true;
}

// The file-name filter for a file: the rule's omits and covers in
// fine-grained mode, the extension filter otherwise.
bool file_name_rejected(WatchData& w, native_string_view path, scan::ScanRule* rule) {
  if (w.filters.fine_grained()) return scan::fileRejected(w.filters, path, rule);
  return scan::extFiltered(w.filters.extFilter, path);
}

native_string join(const native_string& root, native_string_view name) {
  native_string p = root;
  if (!p.empty() && p.back() != scan::native_separator && p.back() != '/') p.push_back(scan::native_separator);
  p.append(name);
  return p;
}

bool ends_with_separator(const native_string& p) {
  return !p.empty() && (p.back() == scan::native_separator || p.back() == '/');
}

// Attempts at opening a folder that is busy (held by another program for a
// moment, just moved in), and the wait between them.
constexpr int busy_attempts = 5;
constexpr auto busy_wait = std::chrono::milliseconds(20);

// Opens a folder for listing as the scanner does (the long-path form on
// Windows; relative to its parent, without following links, on Linux),
// trying a busy one a few times.
scan::listing_status open_listing(WatchData& w, scan::dir_listing& dir, const native_string& path,
                                  const scan::dir_listing* parent, const scan::dir_entry* entry) {
  scan::listing_status status = dir.open(path, parent, entry, false);
  for (int attempt = 1; status == scan::listing_status::busy && attempt < busy_attempts && w.running.load();
       ++attempt) {
    std::this_thread::sleep_for(busy_wait);
    status = dir.open(path, parent, entry, false);
  }
  return status;
}

// Opens the folder that appeared. A path the system does not take in one
// call (Linux, beyond PATH_MAX) is opened component by component from the
// root of the watch, each relative to the one before.
std::shared_ptr<scan::dir_listing> open_new_folder(WatchData& w, const native_string& path, native_string_view rel) {
  auto dir = std::make_shared<scan::dir_listing>();
  if (!path_beyond_limit(path)) {
    scan::listing_status status = open_listing(w, *dir, path, nullptr, nullptr);
    if (status == scan::listing_status::listed) return dir;
    if (status != scan::listing_status::missing && status != scan::listing_status::denied) {
      log::err("FileWatcher: the entries of " + scan::native_to_utf8(path) +
               " are not reported: " + scan::dir_listing::describe(dir->error()));
    }
    return nullptr;
  }
  native_string at = w.rootPath;
  if (open_listing(w, *dir, at, nullptr, nullptr) != scan::listing_status::listed) return nullptr;
  for (const auto& name : components_of(rel)) {
    auto next = std::make_shared<scan::dir_listing>();
    scan::dir_entry e;
    e.name = name;  // ends where a NUL follows
    e.is_dir = true;
    at = join(at, name);
    if (open_listing(w, *next, at, dir.get(), &e) != scan::listing_status::listed) {
      log::err("FileWatcher: the entries of " + scan::native_to_utf8(path) +
               " are not reported: " + scan::dir_listing::describe(next->error()));
      return nullptr;
    }
    dir = std::move(next);
  }
  return dir;
}

// Reports what a folder that appeared already holds: one "add"/"addDir"
// per entry that the filters keep, depth first, with the scanner's listing
// (links not followed, a folder that leads back to one of its ancestors not
// entered, an entry gone meanwhile skipped). Names are built from the
// listing's components, whatever form the root has (a drive root, a
// long-path prefix).
void expand_folder(WatchData& w, const native_string& folder, native_string_view folder_rel,
                   std::vector<watch_event>& out) {
  auto top = open_new_folder(w, folder, folder_rel);
  if (!top) return;
  struct frame {
    std::shared_ptr<scan::dir_listing> dir;
    std::size_t path_size;
    std::size_t rel_size;
  };
  native_string path = folder;
  native_string rel(folder_rel);
  const std::size_t rel_offset = w.rootPath.size() + (ends_with_separator(w.rootPath) ? 0 : 1);
  std::vector<scan::folder_id> ancestors{top->id()};
  std::vector<frame> stack;
  stack.push_back({std::move(top), path.size(), rel.size()});
  scan::dir_entry e;
  while (!stack.empty()) {
    if (!w.running.load()) return;
    frame& f = stack.back();
    if (!f.dir->next(e)) {
      if (f.dir->end_status() == scan::listing_status::failed || f.dir->end_status() == scan::listing_status::busy) {
        path.resize(f.path_size);
        log::err("FileWatcher: the listing of " + scan::native_to_utf8(path) +
                 " stopped part-way: " + scan::dir_listing::describe(f.dir->error()));
      }
      stack.pop_back();
      ancestors.pop_back();
      continue;
    }
    if (e.name == OSTREL_NATIVE(".") || e.name == OSTREL_NATIVE("..")) continue;
    path.resize(f.path_size);
    rel.resize(f.rel_size);
    if (!ends_with_separator(path)) path.push_back(scan::native_separator);
    const std::size_t name_offset = path.size();
    path.append(e.name);
    if (!rel.empty()) rel.push_back(scan::native_separator);
    rel.append(e.name);
    if (invalid_name_prefix(e.name) != native_string::npos) {
      w.report_invalid_name(rel);
      continue;
    }
    if (scan::ignoreDir(w.filters, native_string(e.name))) continue;
    auto components = components_of(rel);
    scan::ScanRule* rule = nullptr;
    const bool reported = !path_rejected(w, components, rule);
    if (reported) {
      scan::FileInfo info = scan::FileInfo::from_walk(path, rel_offset, name_offset);
      // The listing's kind stands when the metadata cannot be read.
      info.isFile = !e.is_dir;
      int settled;
      try {
        settled = scan::settle_outcome(info, f.dir->query(info, e));
      } catch (const std::exception& ex) {
        log::err_value("Error in NotifyDataFromNotifyInfo: ", ex.what());
        settled = -1;
      }
      if (settled == 0) continue;  // gone meanwhile
      if (settled < 0) {
        // Failed only for now: reported with its kind, as unreadable.
        info.readable = false;
        info.clear_metadata();
        info.isFile = !e.is_dir;
      }
      if (info.isFile && !e.is_dir && special_file(path)) continue;
      if (!info.isFile || !file_name_rejected(w, path, rule)) {
        watch_event ev;
        ev.action = action_added;
        ev.file_name = rel;
        ev.info = std::move(info);
        ev.listed = true;
        out.push_back(std::move(ev));
      }
    }
    if (!e.is_dir) continue;
    auto child = std::make_shared<scan::dir_listing>();
    if (open_listing(w, *child, path, f.dir.get(), &e) != scan::listing_status::listed) continue;
    bool loop = false;
    for (const auto& a : ancestors) loop = loop || a.same_as(child->id());
    if (loop) continue;
    ancestors.push_back(child->id());
    stack.push_back({std::move(child), path.size(), rel.size()});
  }
}

// Always finishes its record, so that the records after it are not held
// back by a failure.
struct record_finisher {
  std::shared_ptr<WatchData> w;
  bool dir_mode;
  std::uint64_t seq;
  std::vector<watch_event> events;
  ~record_finisher() {
    try {
      if (w->finish_record(dir_mode, seq, std::move(events))) w->flush();
    } catch (const std::exception& e) {
      log::err_value("Error in NotifyDataFromNotifyInfo: ", e.what());
    }
  }
};

task<void> NotifyDataFromNotifyInfo(std::shared_ptr<WatchData> w, change_record record, bool dir_mode,
                                    std::uint64_t seq) {
  record_finisher done{w, dir_mode, seq, {}};
  // Named: GCC 12 destroys a temporary inside a co_await expression twice.
  const cancellation_token stop = w->stop_token();
  try {
    // Metadata reads block: never on the I/O service's thread.
    co_await on_blocking(stop);
    if (!w->running.load()) co_return;
    auto components = components_of(record.name);
    if (ignored_component(*w, components)) co_return;
    scan::ScanRule* rule = nullptr;
    native_string path = join(w->rootPath, record.name);
    if (path_rejected(*w, components, rule)) {
      // A folder that appeared outside every rule is not reported, but a
      // folder a rule selects may already lie inside it.
      if (dir_mode && (record.action == action_added || record.action == action_renamed_new)) {
        expand_folder(*w, path, record.name, done.events);
      }
      co_return;
    }
    auto info = std::make_shared<scan::FileInfo>(path, w->rootPath);
    // Until a query says otherwise, the kind is that of the loop that saw
    // the item (one loop sees files, the other folders).
    info->isFile = !dir_mode;
    const bool gone = record.action == action_removed || record.action == action_renamed_old;
    if (!gone) {
      bool usable = false;
      if (path_beyond_limit(path)) {
        info->readable = false;  // cannot be queried by path: its kind stays
      } else {
        usable = co_await scan::FillFileInfoAsync(info, 0, w->stopped);
        if (!w->running.load()) co_return;
      }
      // A FIFO, socket, device or a link to one is no file to report; the
      // query gives such an item as not usable, as it does one that is gone.
      if (info->readable && (!usable || info->isFile) && special_file(path)) co_return;
      if (!usable && info->readable) {
        // Gone before it could be read (created and deleted at once): still
        // reported, so that a replay sees every step, with the kind from
        // the loop that saw it and no metadata.
        info->clear_metadata();
      }
      if (!info->readable || !usable) info->isFile = !dir_mode;
      if (info->isFile && file_name_rejected(*w, path, rule)) co_return;
    }
    const bool expand = !info->isFile && (record.action == action_added || record.action == action_renamed_new);
    watch_event e;
    e.action = record.action;
    e.file_name = std::move(record.name);
    e.info = std::move(*info);
    done.events.push_back(std::move(e));
    if (expand) expand_folder(*w, path, done.events.front().file_name, done.events);
  } catch (const operation_cancelled&) {
  } catch (const std::exception& ex) {
    log::err_value("Error in NotifyDataFromNotifyInfo: ", ex.what());
  }
}

void NotifyWatchReady(WatchData& w) {
  w.sink->ready();
}

}  // namespace

void SendWatchError(WatchData& w, std::int64_t error_code, std::string reason, std::string code) {
  w.sink->error(error_code, std::move(reason), std::move(code));
}

void HandleLastError(WatchData& w, std::uint32_t error) {
  if (error == 0) return;
  std::string message = system_message(error);
  log::wout(L"HandleLastError : " + to_wide(message));
  SendWatchError(w, error, std::move(message), "");
}

namespace {

// Folders of the tree that could not be watched: one error event per
// occurrence, naming how many (an overflow with reportOverflow, since the
// changes there are lost the same way).
void report_unwatched(WatchData& w, std::uint32_t count, std::uint32_t error) {
  std::string reason = std::to_string(count) + (count == 1 ? " folder is" : " folders are") +
                       " not watched: changes there are lost (" +
                       (error ? system_message(error) : std::string("the watch could not be added")) + ")";
  log::err("FileWatcher: " + reason);
  if (w.settings.report_overflow) {
    SendWatchError(w, error_overflow, std::move(reason), "OVERFLOW");
  } else {
    SendWatchError(w, error ? error : error_unwatched, std::move(reason), "UNWATCHED");
  }
}

void report_notices(WatchData& w, read_outcome& batch, bool dir_mode) {
  // Both readers of a session watch the same folders and miss the same
  // ones: the folder reader tells.
  if (batch.unwatched_folders && dir_mode) report_unwatched(w, batch.unwatched_folders, batch.unwatched_error);
  for (const auto& name : batch.invalid_names) w.report_invalid_name(name);
}

}  // namespace

task<void> WatchLoop(std::shared_ptr<WatchData> w, bool dir_mode) {
  std::shared_ptr<dir_reader> reader;
  bool reopen = false;
  bool just_opened = false;
  // The deletion of the root has been reported; it is reported again only
  // after the root came back.
  bool removal_reported = false;
  // An overflow to report once the reader reads again: a client that
  // rescans when told then misses nothing that changed after the notice.
  bool overflow_unreported = false;
  std::int32_t failures = 0;
  // Named: GCC 12 destroys a temporary inside a co_await expression twice.
  const cancellation_token stop = w->stop_token();
  auto report_overflow = [&] {
    if (std::exchange(overflow_unreported, false) && w->running.load()) {
      SendWatchError(*w, error_overflow, "Changes were lost: the system's change buffer overflowed", "OVERFLOW");
    }
  };
  auto close_reader = [&] {
    if (!reader) return;
    reader.reset();
    w->openLoops.fetch_sub(1);
  };
  try {
    co_await on_pool();
    while (w->running.load()) {
      if (reopen || w->rootRemoved.load()) close_reader();
      if (w->rootRemoved.load()) {
        if (!removal_reported) {
          removal_reported = true;
          SendWatchError(*w, 17, "Directory deleted", "REMOVED");
        }
        report_overflow();
        co_await w->dirDeletedChangeEvents[dir_mode ? 1 : 0];
        co_await on_pool();
        log::out("dirDeletedChangeEvents");
        continue;
      }
      if (failures >= 3) {
        auto io = runtime::io();
        if (!io) break;
        try {
          co_await io->schedule_after(back_off, stop);
        } catch (const operation_cancelled&) {
          break;  // closed: the loop ends at once
        }
        co_await on_pool();
        log::out("wait 1s for handler to be created");
        if (!w->running.load()) break;
      }
      if (!reader) {
        // Opening the root (and putting its watches) may block for long.
        co_await on_blocking(stop);
        if (!w->running.load()) break;
        open_result opened = open_dir_reader(*w, dir_mode);
        if (!opened.reader) {
          reopen = true;
          ++failures;
          if (opened.error == error_root_not_found) {
            if (!w->rootRemoved.exchange(true)) w->CancelPendingReads();
          } else {
            HandleLastError(*w, opened.error);
          }
          report_overflow();
          continue;
        }
        reader = std::move(opened.reader);
        reopen = false;
        just_opened = true;
        removal_reported = false;
        // The failure count goes back to 0 only once a read has delivered:
        // a root that opens but cannot be read (a file, a remote without
        // change notification) would otherwise be retried in a tight loop.
      }
      auto queue = std::make_shared<async_message_event>();
      // Started at once: its first read is pending when this returns.
      spawn(ReadChangesTask(w, reader, queue), runtime::alive());
      report_overflow();
      if (just_opened) {
        just_opened = false;
        if (w->openLoops.fetch_add(1) == 1) NotifyWatchReady(*w);
      }
      for (;;) {
        std::shared_ptr<read_outcome> batch = co_await queue->pop();
        if (!batch) break;
        failures = 0;
        report_notices(*w, *batch, dir_mode);
        for (auto& record : batch->records) {
          if (w->rootRemoved.load()) break;
          const std::uint64_t seq = w->next_sequence(dir_mode, record.name, record.action);
          spawn(NotifyDataFromNotifyInfo(w, std::move(record), dir_mode, seq), runtime::alive());
        }
      }
      if (queue->ended == read_outcome::kind::overflow && w->settings.report_overflow) overflow_unreported = true;
      if (queue->ended == read_outcome::kind::failed && w->running.load()) {
        if (queue->error == error_root_not_found) {
          if (!w->rootRemoved.exchange(true)) w->CancelPendingReads();
        } else {
          // A root that opens but cannot be read (not a folder) says so on
          // every attempt; one that can never be read, once.
          HandleLastError(*w, queue->error);
          if (queue->permanent) break;
        }
      }
      reopen = true;
      ++failures;
    }
  } catch (const operation_cancelled&) {
    // The session stopped while this loop waited for a blocking thread.
  } catch (const std::exception& e) {
    log::err_value("std::exception in WatchLoop, the loop is closed: \n", e.what());
  }
  close_reader();
}

namespace {

// The root's poll: every 5007 ms (an odd value on purpose), whether the
// root is there. It marks the session removed when the root is gone and
// wakes both loops when it is back. The query runs on a blocking thread,
// never on libuv's: a root on a share that stopped answering would hold
// one of libuv's four threads for good (starving the script's own file
// calls), and node waits for them at process exit and at a Worker's end.
constexpr std::chrono::milliseconds root_poll_interval{5007};

void apply_root_poll(WatchData& w, bool present) {
  if (!present) {
    if (!w.rootRemoved.exchange(true)) w.CancelPendingReads();
  } else if (w.rootRemoved.exchange(false)) {
    w.dirDeletedChangeEvents[0].set();
    w.dirDeletedChangeEvents[1].set();
  }
}

task<void> RootPoll(std::shared_ptr<WatchData> w) {
  // Named: GCC 12 destroys a temporary inside a co_await expression twice.
  const cancellation_token stop = w->stop_token();
  try {
    // The first look at once, as the loops open the root.
    for (bool first = true; w->running.load(); first = false) {
      if (!first) {
        auto io = runtime::io();
        if (!io) break;
        co_await io->schedule_after(root_poll_interval, stop);
      }
      co_await on_blocking(stop);
      const bool present = root_present(w->rootPath);
      if (!w->running.load()) break;
      apply_root_poll(*w, present);
    }
  } catch (const operation_cancelled&) {
    // Closed.
  } catch (const std::exception& e) {
    log::err_value("FileWatcher: the root poll stopped: ", e.what());
  }
}

}  // namespace

void start_watch_loops(const std::shared_ptr<WatchData>& w) {
  spawn(WatchLoop(w, false), runtime::alive());
  spawn(WatchLoop(w, true), runtime::alive());
  spawn(RootPoll(w), runtime::alive());
}

}  // namespace ostrel::watch
