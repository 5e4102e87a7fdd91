// ScanData: the state of one ScanAllSubFiles call, shared by the walk, its
// metadata retries, the delivery of updates, the returned close function and
// the environment clean-up hook.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "file_info.h"
#include "runtime/cancellation.h"
#include "runtime/events.h"
#include "scan_filters.h"

namespace ostrel::scan {

// Kept records that have not reached script yet, taken together.
struct scan_update {
  std::vector<FileInfo> files;
  std::vector<FileInfo> folders;
  std::uint64_t size = 0;  // sum of the files' sizes
};

// A folder whose entries the scan could not (all) list.
struct skipped_folder {
  std::string path;  // the root as script gave it, a separator, the relative path
  int code = 0;      // the platform's error code (errno, or the Win32 error); 0 when there is none
  std::string reason;
};

// A folder not walked because it is one of its own ancestors, reached again
// through a link, a junction or a mount.
struct looped_folder {
  std::string path;     // as skipped_folder::path
  std::string same_as;  // the ancestor it leads back to, in the same form
};

// A folder holding entries whose names are not valid text (not UTF-8 on
// Linux, an unpaired surrogate on Windows): they are not delivered, since
// no path script could use would lead to them.
struct invalid_name_folder {
  std::string path;  // as skipped_folder::path
  std::uint64_t count = 0;
};

class ScanData {
 public:
  static constexpr std::uint64_t file_count_limit = 10'000'000;
  // Records collected but not yet turned into script objects beyond which
  // the walk waits for script to catch up.
  static constexpr std::size_t default_backlog_limit = 100'000;
  // Records per update call. A fast walk collects far more than this in
  // 100 ms; handing them to script in pieces keeps each piece's objects in
  // the script engine's young generation, where they die cheaply, instead
  // of promoting tens of thousands of them and growing the heap.
  static constexpr std::size_t update_record_limit = 8'192;

  ScanData();
  ~ScanData();
  ScanData(const ScanData&) = delete;
  ScanData& operator=(const ScanData&) = delete;

  // The root as given by script ("dirPath" of every object) and the form the
  // walk uses: absolute, without a trailing separator (unless it is the
  // file system's root).
  std::string root_utf8;
  native_string root;
  ScanFilters filters;

  std::atomic<std::uint64_t> totalFileCount{0};
  std::atomic<std::uint64_t> filteredFileCount{0};
  std::atomic<std::uint64_t> hiddenSystemFileCount{0};
  // Entries that are neither regular files nor folders (FIFOs, sockets,
  // devices, and links to them where links are followed): not delivered.
  std::atomic<std::uint64_t> specialFileCount{0};

  // The stop flag: set once, by CloseScanFiles or the clean-up hook.
  const std::shared_ptr<std::atomic<bool>>& stop_flag() const noexcept { return stop_; }
  bool stopped() const noexcept { return stop_->load(std::memory_order_acquire); }
  // Sets the flag; true when it was already set.
  bool request_stop();

  // The end of a record's way through the scan, after its metadata query:
  // drops a hidden-and-system record (counting a file), rounds the times
  // when asked, and collects it.
  // `may_wait` as for collect.
  void keep_record(FileInfo&& info, bool may_wait);
  // Appends a record to the collected lists; the first record into empty
  // lists sets `batch_ready`. With `may_wait` (the walk's thread), first
  // waits while too many records are undelivered; the I/O service's thread,
  // which runs the delivery timer, never waits.
  void collect(FileInfo&& info, bool may_wait);
  // Moves at most `max_records` collected records into `into` (files
  // first, then folders, each in collection order), after emptying it.
  // `more` tells whether records were left behind for the next update.
  // The buffers circulate: the update's emptied vectors hold the next
  // records collected, so a scan maps its record storage once instead of
  // growing a vector from nothing for every update.
  void take_update(std::size_t max_records, bool& more, scan_update& into);
  scan_update take_update(std::size_t max_records, bool& more) {
    scan_update update;
    take_update(max_records, more, update);
    return update;
  }
  // `count` records have been turned into script objects (or dropped).
  void release_backlog(std::size_t count);
  void set_backlog_limit(std::size_t limit) noexcept { backlog_limit_ = limit; }

  // Work that can still collect records: the walk and each metadata retry.
  void begin_work() noexcept { work_.fetch_add(1, std::memory_order_relaxed); }
  // Ends one piece of work; the last one marks the scan finished and sets
  // `batch_ready`.
  void end_work();
  bool finished() const noexcept { return finished_.load(std::memory_order_acquire); }

  // Set when records wait for an update, and when the scan has finished.
  async_auto_reset_event batch_ready;
  // The delivery loop's wait for an update to fill (at most 100 ms): a
  // fresh token, cancelled as soon as update_record_limit records wait, the
  // scan has finished or is stopped, since waiting longer would add nothing
  // to the update.
  cancellation_token update_due_token();

  // The walk's account of what it could not cover. `relative` is the
  // folder's path below the root (empty: the root itself). A folder is
  // named once however often it is met (fine-grained rules walk shared
  // folders again). Each skip also writes one line to standard error, the
  // first few per scan only.
  void add_skipped(native_string_view relative, int code, std::string reason);
  void add_looped(native_string_view relative, native_string_view same_as);
  // `count` entries of the folder at `relative` were left out for their
  // names (is_valid_name). One line on standard error per folder, the
  // first few per scan only.
  void add_invalid_names(native_string_view relative, std::uint64_t count);
  // Read once the scan has finished.
  std::vector<skipped_folder> skipped_folders() const;
  std::vector<looped_folder> looped_folders() const;
  std::vector<invalid_name_folder> invalid_name_folders() const;
  std::uint64_t invalid_name_count() const;
  // True when no folder was skipped and no entry was left out for its name:
  // every folder the walk reached was listed to its end (folders that
  // vanished or may not be listed aside) and everything listed could be
  // reported.
  bool complete() const;
  // The path of a folder below the root as script sees it.
  std::string script_path(native_string_view relative) const;
  static constexpr std::size_t logged_skip_limit = 10;

 private:
  // Cancels the delivery loop's current wait for an update to fill.
  void end_update_wait();

  std::shared_ptr<std::atomic<bool>> stop_ = std::make_shared<std::atomic<bool>>(false);
  std::atomic<int> work_{0};
  std::atomic<bool> finished_{false};
  std::atomic<bool> update_pending_{false};

  std::mutex mutex_;
  // Collected files in pieces of at most update_record_limit, each reserved
  // whole, so that collecting never moves records to grow a vector.
  std::deque<std::vector<FileInfo>> file_chunks_;
  std::vector<std::vector<FileInfo>> spare_chunks_;  // emptied pieces, for reuse
  std::vector<FileInfo> folders_;
  std::uint64_t collected_size_ = 0;
  std::size_t waiting_records_ = 0;  // collected, not yet taken into an update
  cancellation_source update_due_;   // of the delivery loop's current wait

  mutable std::mutex account_mutex_;
  std::vector<skipped_folder> skipped_;
  std::vector<looped_folder> looped_;
  std::vector<invalid_name_folder> invalid_names_;
  std::uint64_t invalid_name_count_ = 0;
  std::unordered_set<std::string> accounted_;  // paths in either list

  std::mutex backlog_mutex_;
  std::condition_variable backlog_drained_;
  std::size_t backlog_ = 0;
  std::size_t backlog_limit_ = default_backlog_limit;
};

}  // namespace ostrel::scan
