#include "scan_walk.h"

#include <chrono>
#include <coroutine>
#include <exception>
#include <system_error>
#include <thread>
#include <vector>

#include "dir_listing.h"
#include "leave_list.h"
#include "runtime/blocking.h"
#include "runtime/log.h"
#include "runtime/coroutine_chain.h"
#include "runtime/runtime.h"
#include "stat_pipeline.h"

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

void retry_metadata_later(std::shared_ptr<ScanData> scan, std::shared_ptr<FileInfo> info) {
  retry_metadata(std::move(scan), std::move(info));
}

namespace {

bool is_dot_name(native_string_view name) {
  return name == OSTREL_NATIVE(".") || name == OSTREL_NATIVE("..");
}

// One open folder of the walk.
struct frame {
  std::shared_ptr<dir_listing> dir;
  std::size_t path_size = 0;  // path length of this folder
  bool had_entries = false;
  // Reported after its walk when it turns out empty (returnEmptyFolder).
  bool report_if_empty = false;
  std::size_t name_offset = 0;
  dir_entry entry;  // as its parent listed it; the name is kept below
  native_string name;
};

// Attempts at opening a folder that is busy, and the wait between them.
constexpr int busy_attempts = 5;
constexpr std::chrono::milliseconds busy_wait{50};

// A folder on the way from the root to the folder being listed.
struct ancestor {
  folder_id id;
  std::size_t path_size = 0;  // its path is path_ up to here
};

class walker {
 public:
  explicit walker(const std::shared_ptr<ScanData>& scan)
      : scan_(scan),
        f_(scan->filters),
        leave_dirs_(scan->filters.leaveDirs, scan->root),
        leave_files_(scan->filters.leaveFiles, scan->root) {
    path_ = scan->root;
    rel_offset_ = path_.size() + (ends_with_separator(path_) ? 0 : 1);
    // Helper threads share the metadata queries when asked for and there is
    // something to query (the fast listing has it all).
    if (!f_.fastMetadata && f_.metadata_helpers > 0) {
      pipeline_ = std::make_unique<stat_pipeline>(scan, f_.metadata_helpers);
    }
  }
  ~walker() {
    if (pipeline_) pipeline_->finish();
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
  static bool ends_with_separator(const native_string& p) {
    return !p.empty() && (p.back() == native_separator || p.back() == '/');
  }

  std::shared_ptr<dir_listing> open_root() {
    path_.resize(scan_->root.size());
    return open_folder(nullptr, nullptr);
  }

  // Opens the folder at path_ (the root when `parent` is null). Null when
  // there is nothing to walk there: the folder cannot be listed, or it is
  // one of its own ancestors (a link, junction or mount leading back up).
  // The root is accounted for whatever stopped it; a folder below it only
  // for a failure other than being gone or denied, which stays silent.
  std::shared_ptr<dir_listing> open_folder(const dir_listing* parent, const dir_entry* entry) {
    auto dir = std::make_shared<dir_listing>();
    listing_status status = dir->open(path_, parent, entry, f_.fastMetadata);
    // A folder held by someone else for a moment (being renamed or deleted
    // right now) is tried again a few times before it counts as a failure.
    for (int attempt = 1; status == listing_status::busy && attempt < busy_attempts && !scan_->stopped(); ++attempt) {
      std::this_thread::sleep_for(busy_wait);
      status = dir->open(path_, parent, entry, f_.fastMetadata);
    }
    if (status == listing_status::busy) status = listing_status::failed;
    if (status != listing_status::listed) {
      if (!parent || status == listing_status::failed) {
        scan_->add_skipped(relative_at(path_.size()), dir->error(), dir_listing::describe(dir->error()));
      }
      return nullptr;
    }
    for (const ancestor& a : ancestors_) {
      if (a.id.same_as(dir->id())) {
        scan_->add_looped(relative_at(path_.size()), relative_at(a.path_size));
        return nullptr;
      }
    }
    return dir;
  }

  // After a folder's listing ended: a listing that broke off for a reason
  // other than the folder going away or being denied is accounted for.
  // True when every entry was listed.
  bool finish_listing(const dir_listing& dir, std::size_t path_size) {
    if (dir.end_status() == listing_status::failed || dir.end_status() == listing_status::busy) {
      scan_->add_skipped(relative_at(path_size), dir.error(),
                         "the listing stopped part-way: " + dir_listing::describe(dir.error()));
    }
    return dir.end_status() == listing_status::listed;
  }

  // Appends a separator and `name` to the path; returns where the name starts.
  std::size_t push_name(native_string_view name) {
    if (!ends_with_separator(path_)) path_.push_back(native_separator);
    std::size_t at = path_.size();
    path_.append(name);
    return at;
  }

  native_string_view relative() const { return relative_at(path_.size()); }
  // The relative path of the folder whose path is path_ up to `path_size`
  // (empty for the root).
  native_string_view relative_at(std::size_t path_size) const {
    if (path_size <= rel_offset_) return {};
    return native_string_view(path_).substr(rel_offset_, path_size - rel_offset_);
  }

  // The fine-grained descent: at `depth` the folder's sub-folders must fully
  // match the rule's expression for that depth; when the list is used up the
  // folder reached is walked whole. False when the scan stopped.
  bool descend(dir_listing& dir, std::shared_ptr<dir_listing> owned, std::size_t depth, const ScanRule& rule) {
    if (depth == rule.dir_regs.size()) return walk_tree(std::move(owned), &rule);
    std::size_t saved = path_.size();
    dir_entry e;
    while (dir.next(e)) {
      if (is_dot_name(e.name) || !e.is_dir) continue;
      if (scan_->stopped()) return false;
      if (!rule.dir_regs[depth].full_match(e.name) || ignoreDir(f_, e.name)) continue;
      push_name(e.name);
      bool go_on = true;
      if (!leave_dirs_.contains(relative())) {
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
    finish_listing(dir, saved);
    return true;
  }

  // Walks the folder open in `root` (whose path is path_, and which is the
  // last of ancestors_) and everything beneath it, depth first, without
  // recursion. False when the scan stopped.
  bool walk_tree(std::shared_ptr<dir_listing> root, const ScanRule* rule) {
    const std::size_t base = ancestors_.size();
    std::vector<frame> stack;
    stack.emplace_back();
    stack.back().dir = std::move(root);
    stack.back().path_size = path_.size();
    dir_entry e;
    while (!stack.empty()) {
      frame& top = stack.back();
      if (!top.dir->next(e)) {
        bool listed_whole = finish_listing(*top.dir, top.path_size);
        frame done = std::move(stack.back());
        stack.pop_back();
        if (!stack.empty()) ancestors_.pop_back();
        // Only a folder listed to its end is known to be empty.
        if (done.report_if_empty && !done.had_entries && listed_whole && !stack.empty()) {
          path_.resize(stack.back().path_size);
          std::size_t at = push_name(done.name);
          done.entry.name = done.name;
          produce(stack.back().dir, done.entry, at);
        }
        if (!stack.empty()) path_.resize(stack.back().path_size);
        continue;
      }
      if (is_dot_name(e.name)) continue;
      top.had_entries = true;
      if (scan_->stopped()) {
        ancestors_.resize(base);
        return false;
      }
      path_.resize(top.path_size);
      std::size_t name_offset = push_name(e.name);
      if (!e.is_dir) {
        file(top.dir, e, name_offset, rule);
        continue;
      }
      if (ignoreDir(f_, e.name) || leave_dirs_.contains(relative())) continue;
      if (f_.needDirs) produce(top.dir, e, name_offset);
      auto child = open_folder(top.dir.get(), &e);
      if (!child) continue;
      ancestors_.push_back({child->id(), path_.size()});
      frame next;
      next.dir = std::move(child);
      next.path_size = path_.size();
      if (!f_.needDirs && f_.returnEmptyFolder) {
        next.report_if_empty = true;
        next.entry = e;
        next.name.assign(e.name);
      }
      stack.push_back(std::move(next));
    }
    return true;
  }

  void file(const std::shared_ptr<dir_listing>& dir, const dir_entry& e, std::size_t name_offset,
            const ScanRule* rule) {
    if (leave_files_.contains(relative())) return;
    scan_->totalFileCount.fetch_add(1, std::memory_order_relaxed);
    if (walkFileRejected(f_, e.name, rule)) {
      scan_->filteredFileCount.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    produce(dir, e, name_offset);
  }

  // Builds the record of the entry at path_, fills its metadata and keeps it.
  void produce(const std::shared_ptr<dir_listing>& dir, const dir_entry& e, std::size_t name_offset) {
    FileInfo info = FileInfo::from_walk(path_, rel_offset_, name_offset);
    // What the listing said, so that an entry whose metadata may not be read
    // still lands in the right list; a successful query overwrites it.
    info.isFile = !e.is_dir;
    if (pipeline_) {
      if (e.has_metadata) apply_listing_metadata(info, e);
      pipeline_->add(dir, std::move(info), name_offset, e.has_metadata);
      return;
    }
    if (e.has_metadata) {
      apply_listing_metadata(info, e);
      scan_->keep_record(std::move(info), true);
      return;
    }
    int settled;
    try {
      settled = settle_outcome(info, dir->query(info, e));
    } catch (const std::exception& ex) {
      log::out_value("Exception caught in FillFileInfoAsync: ", ex.what());
      return;
    }
    if (settled == 1) {
      scan_->keep_record(std::move(info), true);
    } else if (settled < 0) {
      scan_->begin_work();
      retry_metadata(scan_, std::make_shared<FileInfo>(std::move(info)));
    }
  }

  std::shared_ptr<ScanData> scan_;
  std::unique_ptr<stat_pipeline> pipeline_;
  std::vector<ancestor> ancestors_;
  const ScanFilters& f_;  // compiled before the walk started; only read
  leave_list leave_dirs_;
  leave_list leave_files_;
  native_string path_;
  std::size_t rel_offset_ = 0;
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
