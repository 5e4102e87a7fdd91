#include "scan_walk.h"

#include <algorithm>
#include <cerrno>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <coroutine>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include "dir_listing.h"
#include "leave_list.h"
#include "runtime/blocking.h"
#include "runtime/coroutine_chain.h"
#include "runtime/log.h"
#include "runtime/runtime.h"

namespace ostrel::scan {

namespace {

// A coroutine that starts at once and frees itself at its end. It is the
// outermost link of its chain, so a retry parked on the I/O service's timer
// when the service goes away is freed whole, query task included.
struct detached_task {
  struct promise_type : promise_link {
    promise_type() { self = std::coroutine_handle<promise_type>::from_promise(*this); }
    detached_task get_return_object() noexcept { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() noexcept {}
    void unhandled_exception() noexcept { std::terminate(); }
  };
};

}  // namespace

// Retries a record whose first query failed with a transient error: waits
// 100 ms, then goes on with attempt 1. A record that vanished is dropped;
// one that stayed unreadable through every attempt is kept as unreadable.
detached_task retry_metadata(std::shared_ptr<ScanData> scan, std::shared_ptr<FileInfo> info) {
  try {
    auto io = runtime::io();
    bool ok = false;
    if (io && !scan->stopped()) {
      co_await io->schedule_after(std::chrono::milliseconds(100));
      co_await on_blocking();  // the query may block: off the service thread and the pool
      ok = co_await FillFileInfoAsync(info, 1, scan->stop_flag());
    }
    if (!scan->stopped() && (ok || !info->readable)) scan->keep_record(std::move(*info), false);
  } catch (const std::exception& e) {
    log::out("Stopped Queue FileInfo Query with exception for file: " + info->absolutePath + ": " + e.what());
  } catch (...) {
    log::out("Stopped Queue FileInfo Query with exception for file: " + info->absolutePath + ": unknown");
  }
  scan->end_work();
}

namespace {

bool is_dot_name(native_string_view name) {
  return name == OSTREL_NATIVE(".") || name == OSTREL_NATIVE("..");
}

bool out_of_descriptors(int code) {
#ifdef _WIN32
  return code == 4;  // ERROR_TOO_MANY_OPEN_FILES
#else
  return code == EMFILE || code == ENFILE;
#endif
}

bool ends_with_separator(const native_string& p) {
  return !p.empty() && (p.back() == native_separator || p.back() == '/');
}

// Attempts at opening a folder that is busy, and the wait between them.
constexpr int busy_attempts = 5;
constexpr std::chrono::milliseconds busy_wait{50};

// Entries one thread lists and queries in one go before the rest of the
// folder becomes a piece of work of its own: a huge folder neither holds
// all its records at once nor keeps the other thread idle.
constexpr std::size_t entries_per_piece = 2048;
// Records listed ahead of delivery beyond which no thread takes new work
// (the thread that delivers still lists the folder it needs).
constexpr std::size_t records_ahead_limit = 16384;
// Folders the walk's threads hold open (Linux: a descriptor each) beyond
// which no thread takes new work: a folder stays open while it is being
// listed and until the last of its sub-folders has been opened relative to
// it.
constexpr std::size_t open_folders_limit = 64;

// The folders on the way from a walk's root down to a folder: the loop
// guard. Shared by every folder below, freed with the last of them.
struct ancestry {
  folder_id id;
  std::size_t path_size = 0;  // its path is a prefix of its descendants' paths, this long
  std::shared_ptr<const ancestry> up;
};

struct folder_work;

// One thing the walk delivers, in listing order: a record, a folder to walk
// (after its own record when folders are asked for), or both.
struct walk_item {
  FileInfo info;
  bool has_record = false;
  bool retry = false;  // the first query failed for a reason worth another try
  std::shared_ptr<folder_work> child;
};

// One folder, or the rest of one (a continuation), as one piece of work:
// the thread that takes it opens the folder (unless it is open already),
// lists it, and queries every entry it keeps; no other thread touches that
// folder meanwhile. The delivering thread hands the results on in the
// walk's order.
struct folder_work {
  enum : int { pending, claimed, done };
  std::atomic<int> state{pending};

  native_string path;                    // the folder's full path
  std::size_t name_offset = 0;           // where its name starts in `path` (a walk's root: 0)
  dir_entry entry;                       // as its parent listed it (the name is not kept)
  std::shared_ptr<dir_listing> parent;   // the open parent, to open it relative to; released once processed
  std::shared_ptr<const ancestry> up;    // its ancestors
  std::shared_ptr<dir_listing> open;     // already open: a walk's root, or a continuation
  std::shared_ptr<const ancestry> self;  // with `open`: the folder itself and its ancestors
  bool continuation = false;             // the rest of a folder whose first entries came before
  bool report_if_empty = false;          // returnEmptyFolder: its own record if it holds no entry at all

  // Written by the thread that processes it, read by the delivering thread
  // once `state` is done.
  std::vector<walk_item> items;
  std::optional<walk_item> empty_record;
  listing_status open_status = listing_status::listed;
  int open_error = 0;
  std::size_t looped_to = 0;  // path size of the ancestor it is (0: none)
  listing_status end_status = listing_status::listed;
  int end_error = 0;
  bool listed_to_end = false;  // the last piece of the folder: its end was reached (or the listing broke off)
  std::uint64_t invalid_names = 0;
};

class walker {
 public:
  explicit walker(const std::shared_ptr<ScanData>& scan)
      : scan_(scan),
        f_(scan->filters),
        leave_dirs_(scan->filters.leaveDirs, scan->root),
        leave_files_(scan->filters.leaveFiles, scan->root) {
    // The options readers compiled every expression on the main thread,
    // before the scan started: the threads only read them.
    path_ = scan->root;
    rel_offset_ = path_.size() + (ends_with_separator(path_) ? 0 : 1);
    for (unsigned i = 0; i < f_.metadata_helpers; ++i) helpers_.emplace_back([this] { helper_loop(); });
  }
  ~walker() {
    {
      std::lock_guard lock(mutex_);
      closing_ = true;
      work_.clear();
    }
    work_ready_.notify_all();
    for (auto& t : helpers_) t.join();
  }

  void run() {
    if (!f_.fine_grained()) {
      auto root = open_root();
      if (!root) return;
      ancestors_.push_back({root->id(), path_.size()});
      walk_tree(std::move(root), nullptr);
      ancestors_.clear();
      return;
    }
    for (const auto& rule : f_.rules) {
      auto root = open_root();
      if (!root) return;  // the root cannot be listed: no rule finds anything
      ancestors_.assign(1, {root->id(), path_.size()});
      dir_listing& listing = *root;
      bool go_on = descend(listing, std::move(root), 0, rule);
      ancestors_.clear();
      if (!go_on) return;
    }
  }

 private:
  // A folder on the way from the root to the folder the fine-grained
  // descent is in.
  struct ancestor {
    folder_id id;
    std::size_t path_size = 0;
  };

  std::shared_ptr<dir_listing> open_root() {
    path_.resize(scan_->root.size());
    return open_folder(nullptr, nullptr);
  }

  // Opens the folder at `path`; retries a folder that is busy for a moment
  // (being renamed or deleted right now) a few times.
  listing_status open_listing(dir_listing& dir, const native_string& path, const dir_listing* parent,
                              const dir_entry* entry) {
    listing_status status = dir.open(path, parent, entry, f_.fastMetadata);
    for (int attempt = 1; status == listing_status::busy && attempt < busy_attempts && !scan_->stopped(); ++attempt) {
      std::this_thread::sleep_for(busy_wait);
      status = dir.open(path, parent, entry, f_.fastMetadata);
    }
    return status == listing_status::busy ? listing_status::failed : status;
  }

  // The fine-grained descent's open of the folder at path_ (the root when
  // `parent` is null). Null when there is nothing to walk there; the root
  // is accounted for whatever stopped it, a folder below it only for a
  // failure other than being gone or denied.
  std::shared_ptr<dir_listing> open_folder(const dir_listing* parent, const dir_entry* entry) {
    auto dir = std::make_shared<dir_listing>();
    listing_status status = open_listing(*dir, path_, parent, entry);
    if (status != listing_status::listed) {
      if (!parent || status == listing_status::failed) {
        scan_->add_skipped(relative_at(path_, path_.size()), dir->error(), dir_listing::describe(dir->error()));
      }
      return nullptr;
    }
    for (const ancestor& a : ancestors_) {
      if (a.id.same_as(dir->id())) {
        scan_->add_looped(relative_at(path_, path_.size()), relative_at(path_, a.path_size));
        return nullptr;
      }
    }
    return dir;
  }

  std::size_t push_name(native_string& path, native_string_view name) const {
    if (!ends_with_separator(path)) path.push_back(native_separator);
    std::size_t at = path.size();
    path.append(name);
    return at;
  }

  // The path of the folder whose path is `path` up to `path_size`,
  // relative to the root (empty for the root).
  native_string_view relative_at(const native_string& path, std::size_t path_size) const {
    if (path_size <= rel_offset_) return {};
    return native_string_view(path).substr(rel_offset_, path_size - rel_offset_);
  }

  // The fine-grained descent: at `depth` the folder's sub-folders must fully
  // match the rule's expression for that depth; when the list is used up the
  // folder reached is walked whole. False when the scan stopped.
  bool descend(dir_listing& dir, std::shared_ptr<dir_listing> owned, std::size_t depth, const ScanRule& rule) {
    if (depth == rule.dir_regs.size()) return walk_tree(std::move(owned), &rule);
    std::size_t saved = path_.size();
    dir_entry e;
    std::uint64_t invalid = 0;
    while (dir.next(e)) {
      if (is_dot_name(e.name) || !e.is_dir) continue;
      if (scan_->stopped()) return false;
      if (!is_valid_name(e.name)) {
        ++invalid;
        continue;
      }
      if (!rule.dir_regs[depth].full_match(e.name) || ignoreDir(f_, e.name)) continue;
      push_name(path_, e.name);
      bool go_on = true;
      if (!leave_dirs_.contains(relative_at(path_, path_.size()))) {
        if (auto child = open_folder(&dir, &e)) {
          dir_listing& ref = *child;
          ancestors_.push_back({child->id(), path_.size()});
          go_on = descend(ref, std::move(child), depth + 1, rule);
          ancestors_.pop_back();
        }
      }
      path_.resize(saved);
      if (!go_on) return false;
    }
    scan_->add_invalid_names(relative_at(path_, saved), invalid);
    if (dir.end_status() == listing_status::failed || dir.end_status() == listing_status::busy) {
      scan_->add_skipped(relative_at(path_, saved), dir.error(),
                         "the listing stopped part-way: " + dir_listing::describe(dir.error()));
    }
    return true;
  }

  // Walks the folder open in `root` (whose path is path_, and which is the
  // last of ancestors_) and everything beneath it. The folders are listed
  // and queried by this thread and the helpers, a whole folder (or a piece
  // of a huge one) at a time; this thread hands the records on depth
  // first, in listing order. False when the scan stopped.
  bool walk_tree(std::shared_ptr<dir_listing> root, const ScanRule* rule) {
    rule_ = rule;
    std::shared_ptr<const ancestry> chain;
    for (const ancestor& a : ancestors_) chain = std::make_shared<ancestry>(ancestry{a.id, a.path_size, chain});
    auto top = std::make_shared<folder_work>();
    top->path = path_;
    top->open = std::move(root);
    top->self = std::move(chain);
    top->state.store(folder_work::claimed, std::memory_order_relaxed);
    process(*top, false);
    bool finished = deliver(std::move(top));
    {
      // Work left behind by a stop is dropped here.
      std::lock_guard lock(mutex_);
      work_.clear();
    }
    return finished;
  }

  // ------------------------------------------------------------ workers --

  // Takes the first piece of work nobody took yet. Under mutex_.
  std::shared_ptr<folder_work> claim_next() {
    while (!work_.empty()) {
      std::shared_ptr<folder_work> w = std::move(work_.front());
      work_.pop_front();
      int expected = folder_work::pending;
      if (w->state.compare_exchange_strong(expected, folder_work::claimed, std::memory_order_acq_rel)) return w;
    }
    return nullptr;
  }

  // Under mutex_.
  bool room_ahead() const {
    return ahead_ < records_ahead_limit && open_folders_.load(std::memory_order_acquire) < open_folders_limit &&
           !scan_->stopped();
  }

  // A folder opened by the walk's threads, counted until it is closed.
  std::shared_ptr<dir_listing> counted_listing() {
    open_folders_.fetch_add(1, std::memory_order_relaxed);
    std::atomic<std::size_t>* open = &open_folders_;
    try {
      return std::shared_ptr<dir_listing>(new dir_listing(), [open](dir_listing* d) {
        delete d;
        open->fetch_sub(1, std::memory_order_release);
      });
    } catch (...) {
      open_folders_.fetch_sub(1, std::memory_order_relaxed);
      throw;
    }
  }

  void helper_loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (closing_) return;
      std::shared_ptr<folder_work> w;
      if (room_ahead()) w = claim_next();
      if (!w) {
        // A stop sets no condition here, nor a folder closing: look again
        // now and then (soon when only open folders are in the way).
        bool folders_in_way = ahead_ < records_ahead_limit && !work_.empty();
        work_ready_.wait_for(lock, std::chrono::milliseconds(folders_in_way ? 2 : 50));
        continue;
      }
      lock.unlock();
      process(*w, true);
      lock.lock();
    }
  }

  // Lists and queries one piece of work; any thread. With `may_hand_back`
  // (work taken ahead of delivery), a folder that cannot be opened for want
  // of descriptors is handed back undone: the folders held open ahead of
  // delivery are what it lacks, and the delivering thread, which frees
  // them, opens it when it gets there.
  void process(folder_work& w, bool may_hand_back) {
    std::vector<std::shared_ptr<folder_work>> found;
    try {
      process_listing(w, found);
      if (may_hand_back && w.open_status == listing_status::failed && out_of_descriptors(w.open_error)) {
        w.open_status = listing_status::listed;
        w.open_error = 0;
        {
          std::lock_guard lock(mutex_);
          w.state.store(folder_work::pending, std::memory_order_release);
        }
        done_.notify_all();
        return;
      }
    } catch (const std::exception& e) {
      // Out of memory, most likely: the folder counts as not listed.
      w.items.clear();
      found.clear();
      w.end_status = listing_status::failed;
      w.end_error = 0;
      w.listed_to_end = true;
      log::out_value("Exception caught in FileInfo emplace: ", e.what());
    }
    w.parent.reset();
    {
      std::lock_guard lock(mutex_);
      ahead_ += w.items.size();
      // Depth first: what this folder holds comes before what was waiting.
      for (auto it = found.rbegin(); it != found.rend(); ++it) work_.push_front(std::move(*it));
      w.state.store(folder_work::done, std::memory_order_release);
    }
    done_.notify_all();
    if (!found.empty()) work_ready_.notify_all();
  }

  void process_listing(folder_work& w, std::vector<std::shared_ptr<folder_work>>& found) {
    std::shared_ptr<dir_listing> dir = std::move(w.open);
    std::shared_ptr<const ancestry> self = std::move(w.self);
    if (!dir) {
      // Linux opens it relative to its parent, by the name that ends its
      // path (NUL-terminated there).
      w.entry.name = native_string_view(w.path).substr(w.name_offset);
      dir = counted_listing();
      w.open_status = open_listing(*dir, w.path, w.parent.get(), &w.entry);
      if (w.open_status != listing_status::listed) {
        w.open_error = dir->error();
        return;
      }
      for (const ancestry* a = w.up.get(); a; a = a->up.get()) {
        if (a->id.same_as(dir->id())) {
          w.looped_to = a->path_size;
          return;
        }
      }
      self = std::make_shared<ancestry>(ancestry{dir->id(), w.path.size(), w.up});
    }
    native_string path = w.path;
    if (!ends_with_separator(path)) path.push_back(native_separator);
    const std::size_t name_offset = path.size();
    const bool folder_records = f_.needDirs;
    const bool empty_folders = !f_.needDirs && f_.returnEmptyFolder;
    bool had_entries = w.continuation;
    std::size_t seen = 0;
    // Room for the piece at once: growing the list moves every record in it.
    w.items.reserve(std::clamp<std::size_t>(dir->entry_hint(), 32, entries_per_piece + 1));
    dir_entry e;
    for (;;) {
      if (seen == entries_per_piece) {
        // The rest of the folder is a piece of work of its own, delivered
        // after everything found so far.
        auto rest = std::make_shared<folder_work>();
        rest->path = w.path;
        rest->name_offset = w.name_offset;
        rest->open = dir;
        rest->self = self;
        rest->continuation = true;
        rest->invalid_names = w.invalid_names;  // accounted once, with the folder's last piece
        walk_item& item = w.items.emplace_back();
        item.child = rest;
        found.push_back(std::move(rest));
        return;
      }
      if (!dir->next(e)) break;
      if (is_dot_name(e.name)) continue;
      had_entries = true;
      ++seen;
      if (scan_->stopped()) return;
      if (!is_valid_name(e.name)) {
        ++w.invalid_names;
        continue;
      }
      path.resize(name_offset);
      path.append(e.name);
      native_string_view relative = native_string_view(path).substr(rel_offset_);
      if (!e.is_dir) {
        if (leave_files_.contains(relative)) continue;
        scan_->totalFileCount.fetch_add(1, std::memory_order_relaxed);
        if (walkFileRejected(f_, e.name, rule_)) {
          scan_->filteredFileCount.fetch_add(1, std::memory_order_relaxed);
          continue;
        }
        if (e.special) {
          scan_->specialFileCount.fetch_add(1, std::memory_order_relaxed);
          continue;
        }
        // Built in place; taken back when there is nothing to deliver.
        if (!produce(w.items.emplace_back(), *dir, e, path, name_offset)) w.items.pop_back();
        continue;
      }
      if (ignoreDir(f_, e.name) || leave_dirs_.contains(relative)) continue;
      walk_item& item = w.items.emplace_back();
      if (folder_records) produce(item, *dir, e, path, name_offset);
      auto child = std::make_shared<folder_work>();
      child->path = path;
      child->name_offset = name_offset;
      child->entry = e;
      child->entry.name = {};
      child->parent = dir;
      child->up = self;
      child->report_if_empty = empty_folders;
      item.child = child;
      found.push_back(std::move(child));
    }
    w.listed_to_end = true;
    w.end_status = dir->end_status();
    w.end_error = dir->error();
    // Only a folder listed to its end is known to be empty; its record is
    // queried through its parent, as the other entries of the parent are.
    if (w.report_if_empty && !had_entries && w.end_status == listing_status::listed && w.parent) {
      native_string own = w.path;
      walk_item item;
      dir_entry as_listed = w.entry;
      as_listed.name = native_string_view(own).substr(w.name_offset);
      if (produce(item, *w.parent, as_listed, own, w.name_offset)) w.empty_record = std::move(item);
    }
  }

  // Builds the record of the entry at `path` (its name from `name_offset`)
  // and fills its metadata. False when there is nothing to deliver: it
  // vanished, or it is no regular file or folder (counted).
  bool produce(walk_item& item, const dir_listing& dir, const dir_entry& e, const native_string& path,
               std::size_t name_offset) {
    FileInfo& info = item.info;
    FileInfo::walk_parts(path, rel_offset_, name_offset, info);
    // The full path is kept only where the query opens the entry by it; a
    // retry (below) needs it too.
    if (dir_listing::query_reads_full_path) info.native_path = path;
    // What the listing said, so that an entry whose metadata may not be read
    // still lands in the right list; a successful query overwrites it.
    info.isFile = !e.is_dir;
    if (e.has_metadata) {
      apply_listing_metadata(info, e);
    } else {
      query_outcome outcome;
      try {
        outcome = dir.query_name(info, native_string_view(path).substr(name_offset));
      } catch (const std::exception& ex) {
        log::out_value("Exception caught in FillFileInfoAsync: ", ex.what());
        return false;
      }
      if (outcome == query_outcome::special) {
        if (!e.is_dir) scan_->specialFileCount.fetch_add(1, std::memory_order_relaxed);
        return false;
      }
      int settled = settle_outcome(info, outcome);
      if (settled == 0) return false;
      item.retry = settled < 0;
      if (item.retry && info.native_path.empty()) info.native_path = path;
    }
    item.has_record = true;
    return true;
  }

  // ----------------------------------------------------------- delivery --

  // Waits until `w` is processed; takes it on itself when nobody has, and
  // meanwhile helps with other work while there is room ahead.
  void await(const std::shared_ptr<folder_work>& w) {
    std::unique_lock lock(mutex_);
    for (;;) {
      int state = w->state.load(std::memory_order_acquire);
      if (state == folder_work::done) return;
      if (state == folder_work::pending &&
          w->state.compare_exchange_strong(state, folder_work::claimed, std::memory_order_acq_rel)) {
        lock.unlock();
        process(*w, false);
        lock.lock();
        continue;
      }
      std::shared_ptr<folder_work> other;
      if (room_ahead()) other = claim_next();
      if (other) {
        lock.unlock();
        process(*other, true);
        lock.lock();
        continue;
      }
      done_.wait(lock);
    }
  }

  void keep(walk_item& item) {
    if (!item.has_record) return;
    try {
      if (!item.retry) {
        scan_->keep_record(std::move(item.info), true);
      } else {
        scan_->begin_work();
        retry_metadata(scan_, std::make_shared<FileInfo>(std::move(item.info)));
      }
    } catch (const std::exception& e) {
      log::out_value("Exception caught in FileInfo emplace: ", e.what());
    }
  }

  // What could not be covered at the start of a folder, in the walk's order.
  void account_opening(const folder_work& w) {
    if (w.continuation) return;
    native_string_view relative = relative_at(w.path, w.path.size());
    if (w.open_status == listing_status::failed) {
      scan_->add_skipped(relative, w.open_error, dir_listing::describe(w.open_error));
    } else if (w.looped_to) {
      scan_->add_looped(relative, relative_at(w.path, w.looped_to));
    }
  }

  // ... and at its end.
  void account_end(const folder_work& w) {
    if (!w.listed_to_end) return;  // a continuation follows, or the scan stopped
    native_string_view relative = relative_at(w.path, w.path.size());
    if (w.invalid_names) scan_->add_invalid_names(relative, w.invalid_names);
    if (w.end_status == listing_status::failed || w.end_status == listing_status::busy) {
      scan_->add_skipped(relative, w.end_error, "the listing stopped part-way: " + dir_listing::describe(w.end_error));
    }
  }

  void delivered(folder_work& w) {
    std::size_t count = w.items.size();
    std::vector<walk_item>().swap(w.items);
    {
      std::lock_guard lock(mutex_);
      ahead_ -= count;
    }
    work_ready_.notify_all();
  }

  bool deliver(std::shared_ptr<folder_work> top) {
    struct level {
      std::shared_ptr<folder_work> work;
      std::size_t next = 0;
    };
    std::vector<level> stack;
    stack.push_back({std::move(top)});
    while (!stack.empty()) {
      if (scan_->stopped()) return false;
      level& l = stack.back();
      folder_work& w = *l.work;
      if (l.next == w.items.size()) {
        account_end(w);
        if (w.empty_record) keep(*w.empty_record);
        delivered(w);
        stack.pop_back();
        continue;
      }
      walk_item& item = w.items[l.next++];
      keep(item);
      if (!item.child) continue;
      std::shared_ptr<folder_work> child = std::move(item.child);
      await(child);
      account_opening(*child);
      stack.push_back({std::move(child)});
    }
    return true;
  }

  std::shared_ptr<ScanData> scan_;
  const ScanFilters& f_;  // compiled before the walk started; only read
  leave_list leave_dirs_;
  leave_list leave_files_;
  native_string path_;  // the fine-grained descent's folder
  std::size_t rel_offset_ = 0;
  std::vector<ancestor> ancestors_;
  const ScanRule* rule_ = nullptr;  // of the tree being walked; set before any work of it is queued

  std::mutex mutex_;
  std::condition_variable work_ready_;  // work queued, or room ahead
  std::condition_variable done_;        // a piece of work is done
  std::deque<std::shared_ptr<folder_work>> work_;
  std::size_t ahead_ = 0;                     // records of processed pieces not yet delivered
  std::atomic<std::size_t> open_folders_{0};  // counted_listing()s not yet closed
  bool closing_ = false;
  std::vector<std::thread> helpers_;
};

}  // namespace

void run_walk(const std::shared_ptr<ScanData>& scan) {
  // A failure of the walk itself (not of one folder's listing, which only
  // skips that folder) ends it; it is accounted to the root, so the result
  // says the scan is incomplete.
  try {
    walker(scan).run();
  } catch (const std::system_error& e) {
    scan->add_skipped({}, e.code().value(), std::string("the walk stopped: ") + e.what());
  } catch (const std::exception& e) {
    scan->add_skipped({}, 0, std::string("the walk stopped: ") + e.what());
  }
}

}  // namespace ostrel::scan
