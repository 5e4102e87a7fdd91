#include "watch_loop.h"

#include <chrono>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>

#include "dir_reader.h"
#include "runtime/blocking.h"
#include "runtime/events.h"
#include "runtime/log.h"
#include "runtime/runtime.h"
#include "runtime/spawn.h"
#include "runtime/strings.h"
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

// Reports what a folder that appeared already holds: one "add"/"addDir"
// per entry that the filters keep, folders first met first.
void expand_folder(WatchData& w, const native_string& folder, std::vector<watch_event>& out) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::recursive_directory_iterator it;
  // A folder just moved in may refuse to be opened for a moment (another
  // program still holds it): try a few times before giving up on it.
  for (int attempt = 0; attempt < 5; ++attempt) {
    ec.clear();
    it = fs::recursive_directory_iterator(fs::path(folder), fs::directory_options::skip_permission_denied, ec);
    if (!ec || ec == std::errc::no_such_file_or_directory) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (ec && ec != std::errc::no_such_file_or_directory) {
    log::err("FileWatcher: the entries of " + scan::native_to_utf8(folder) + " are not reported: " + ec.message());
    return;
  }
  for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (!w.running.load()) return;
    const fs::path& p = it->path();
    native_string path = p.native();
    native_string_view rel(path);
    rel.remove_prefix(std::min(rel.size(), w.rootPath.size() + 1));
    auto components = components_of(rel);
    bool is_dir = it->is_directory(ec);
    if (ignored_component(w, components)) {
      if (is_dir) it.disable_recursion_pending();
      continue;
    }
    scan::ScanRule* rule = nullptr;
    if (path_rejected(w, components, rule)) continue;
    auto info = std::make_shared<scan::FileInfo>(path, w.rootPath);
    int settled = scan::settle_outcome(*info, scan::query_file_info(*info));
    if (settled == 0) continue;  // gone meanwhile
    if (info->isFile && file_name_rejected(w, path, rule)) continue;
    watch_event e;
    e.action = action_added;
    e.file_name = native_string(rel);
    e.info = std::move(*info);
    out.push_back(std::move(e));
  }
  if (ec && ec != std::errc::no_such_file_or_directory) {
    log::err("FileWatcher: the listing of " + scan::native_to_utf8(folder) + " stopped part-way: " + ec.message());
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
  try {
    // Metadata reads block: never on the I/O service's thread.
    co_await on_pool();
    if (!w->running.load()) co_return;
    auto components = components_of(record.name);
    if (ignored_component(*w, components)) co_return;
    scan::ScanRule* rule = nullptr;
    if (path_rejected(*w, components, rule)) co_return;
    native_string path = join(w->rootPath, record.name);
    auto info = std::make_shared<scan::FileInfo>(path, w->rootPath);
    if (record.action == action_removed || record.action == action_renamed_old) {
      // Gone under this name: the loop that saw it tells the kind.
      info->isFile = !dir_mode;
    } else {
      bool usable = co_await scan::FillFileInfoAsync(info, 0, nullptr);
      if (!usable && info->readable) {
        // Gone before it could be read (created and deleted at once): still
        // reported, so that a replay sees every step, with the kind from
        // the loop that saw it and no metadata.
        info->isFile = !dir_mode;
        info->clear_metadata();
      }
      if (info->isFile && file_name_rejected(*w, path, rule)) co_return;
    }
    const bool expand = !info->isFile && (record.action == action_added || record.action == action_renamed_new);
    watch_event e;
    e.action = record.action;
    e.file_name = std::move(record.name);
    e.info = std::move(*info);
    done.events.push_back(std::move(e));
    if (expand) expand_folder(*w, path, done.events);
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

task<void> WatchLoop(std::shared_ptr<WatchData> w, bool dir_mode) {
  std::shared_ptr<dir_reader> reader;
  bool reopen = false;
  bool just_opened = false;
  std::int32_t failures = 0;
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
        SendWatchError(*w, 17, "Directory deleted", "REMOVED");
        co_await w->dirDeletedChangeEvents[dir_mode ? 1 : 0];
        co_await on_pool();
        log::out("dirDeletedChangeEvents");
        continue;
      }
      if (failures >= 3) {
        auto io = runtime::io();
        if (!io) break;
        co_await io->schedule_after(back_off);
        co_await on_pool();
        log::out("wait 1s for handler to be created");
        if (!w->running.load()) break;
      }
      if (!reader) {
        open_result opened = open_dir_reader(*w, dir_mode);
        if (!opened.reader) {
          reopen = true;
          ++failures;
          if (opened.error == error_root_not_found) {
            if (!w->rootRemoved.exchange(true)) w->CancelPendingReads();
          } else {
            HandleLastError(*w, opened.error);
          }
          continue;
        }
        reader = std::move(opened.reader);
        reopen = false;
        just_opened = true;
        // The failure count goes back to 0 only once a read has delivered:
        // a root that opens but cannot be read (a file, a remote without
        // change notification) would otherwise be retried in a tight loop.
      }
      auto queue = std::make_shared<async_message_event>();
      spawn(ReadChangesTask(w, reader, queue), runtime::alive());
      if (just_opened) {
        just_opened = false;
        if (w->openLoops.fetch_add(1) == 1) NotifyWatchReady(*w);
      }
      for (;;) {
        std::shared_ptr<read_outcome> batch = co_await queue->pop();
        if (!batch) break;
        failures = 0;
        for (auto& record : batch->records) {
          if (w->rootRemoved.load()) break;
          spawn(NotifyDataFromNotifyInfo(w, std::move(record), dir_mode, w->next_sequence(dir_mode)), runtime::alive());
        }
      }
      if (queue->ended == read_outcome::kind::overflow && w->settings.report_overflow && w->running.load()) {
        SendWatchError(*w, error_overflow, "Changes were lost: the system's change buffer overflowed", "OVERFLOW");
      }
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
  } catch (const std::exception& e) {
    log::err_value("std::exception in WatchLoop, the loop is closed: \n", e.what());
  }
  close_reader();
}

void start_watch_loops(const std::shared_ptr<WatchData>& w) {
  spawn(WatchLoop(w, false), runtime::alive());
  spawn(WatchLoop(w, true), runtime::alive());
}

}  // namespace ostrel::watch
