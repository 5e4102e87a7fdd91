#include "scan_walk.h"

#include <chrono>
#include <coroutine>
#include <exception>

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
    io_service* io = runtime::io();
    bool ok = false;
    if (io && !scan->stopped()) {
      co_await io->schedule_after(std::chrono::milliseconds(100));
      co_await on_pool();  // the query blocks: off the I/O service's thread
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
      if (root) walk_tree(std::move(root), nullptr);
      return;
    }
    for (auto& rule : f_.rules) {
      rule.compile();
      auto root = open_root();
      if (!root) return;  // the root cannot be listed: no rule finds anything
      dir_listing& listing = *root;
      if (!descend(listing, std::move(root), 0, rule)) return;
    }
  }

 private:
  static bool ends_with_separator(const native_string& p) {
    return !p.empty() && (p.back() == native_separator || p.back() == '/');
  }

  std::shared_ptr<dir_listing> open_root() {
    auto dir = std::make_shared<dir_listing>();
    path_.resize(scan_->root.size());
    if (!dir->open(path_, nullptr, {}, f_.fastMetadata)) return nullptr;
    return dir;
  }

  // Appends a separator and `name` to the path; returns where the name starts.
  std::size_t push_name(native_string_view name) {
    if (!ends_with_separator(path_)) path_.push_back(native_separator);
    std::size_t at = path_.size();
    path_.append(name);
    return at;
  }

  native_string_view relative() const { return native_string_view(path_).substr(rel_offset_); }

  // The fine-grained descent: at `depth` the folder's sub-folders must fully
  // match the rule's expression for that depth; when the list is used up the
  // folder reached is walked whole. False when the scan stopped.
  bool descend(dir_listing& dir, std::shared_ptr<dir_listing> owned, std::size_t depth, ScanRule& rule) {
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
        auto child = std::make_shared<dir_listing>();
        if (child->open(path_, &dir, e.name, f_.fastMetadata)) {
          dir_listing& ref = *child;
          go_on = descend(ref, std::move(child), depth + 1, rule);
        }
      }
      path_.resize(saved);
      if (!go_on) return false;
    }
    return true;
  }

  // Walks the folder open in `root` (whose path is path_) and everything
  // beneath it, depth first, without recursion. False when the scan stopped.
  bool walk_tree(std::shared_ptr<dir_listing> root, ScanRule* rule) {
    std::vector<frame> stack;
    stack.emplace_back();
    stack.back().dir = std::move(root);
    stack.back().path_size = path_.size();
    dir_entry e;
    while (!stack.empty()) {
      frame& top = stack.back();
      if (!top.dir->next(e)) {
        frame done = std::move(stack.back());
        stack.pop_back();
        if (done.report_if_empty && !done.had_entries && !stack.empty()) {
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
      if (scan_->stopped()) return false;
      path_.resize(top.path_size);
      std::size_t name_offset = push_name(e.name);
      if (!e.is_dir) {
        file(top.dir, e, name_offset, rule);
        continue;
      }
      if (ignoreDir(f_, e.name) || leave_dirs_.contains(relative())) continue;
      if (f_.needDirs) produce(top.dir, e, name_offset);
      auto child = std::make_shared<dir_listing>();
      if (!child->open(path_, top.dir.get(), e.name, f_.fastMetadata)) continue;
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

  void file(const std::shared_ptr<dir_listing>& dir, const dir_entry& e, std::size_t name_offset, ScanRule* rule) {
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
  ScanFilters& f_;
  leave_list leave_dirs_;
  leave_list leave_files_;
  native_string path_;
  std::size_t rel_offset_ = 0;
};

}  // namespace

void run_walk(const std::shared_ptr<ScanData>& scan) {
  walker(scan).run();
}

}  // namespace ostrel::scan
