// WatchData: the state of one StartFileWatch session, shared by its two
// watch loops (file mode and directory mode), every classification task,
// the close function and the environment's clean-up. Portable: the script
// side plugs in through watch_sink, the platform through dir_reader.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <deque>
#include <map>
#include <unordered_map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "change_records.h"
#include "runtime/cancellation.h"
#include "runtime/events.h"
#include "scan/file_info.h"
#include "scan/scan_filters.h"

namespace ostrel::watch {

// One reported change, from classification to the flush that delivers it.
struct watch_event {
  std::uint32_t action = 0;
  native_string file_name;  // the record's name, relative to the root
  scan::FileInfo info;
  // Found by listing a folder that appeared, not reported by the system.
  bool listed = false;
};

// Where a session's results go; implemented by the script side, which moves
// each call to the main thread. Any thread may call.
class watch_sink {
 public:
  virtual ~watch_sink() = default;
  virtual void events(std::vector<watch_event> events) = 0;
  virtual void error(std::int64_t error_code, std::string reason, std::string code) = 0;
  virtual void ready() = 0;
};

// The error code of a name that is not valid Unicode (EILSEQ on Linux,
// ERROR_NO_UNICODE_TRANSLATION on Windows).
#ifdef _WIN32
inline constexpr std::int64_t error_invalid_name = 1113;
#else
inline constexpr std::int64_t error_invalid_name = 84;
#endif

// Options beyond the filters.
struct watch_settings {
  // A lost interval of changes (the system's buffer overflowed) is
  // delivered as an error event with code "OVERFLOW" instead of silently.
  bool report_overflow = false;
};

// What a session's two readers share while both are open (on Linux their
// one subscription to the inotify descriptor; unused on Windows, where each
// has its own directory handle). Does not keep it alive.
struct reader_share {
  std::mutex mutex;
  std::weak_ptr<void> shared;
};

class WatchData {
 public:
  WatchData(native_string root, scan::ScanFilters filters, std::vector<native_string> watch_targets,
            watch_settings settings, std::shared_ptr<watch_sink> sink);
  ~WatchData();
  WatchData(const WatchData&) = delete;
  WatchData& operator=(const WatchData&) = delete;

  const native_string rootPath;
  scan::ScanFilters filters;
  // Kept as given; they do not narrow the events (see docs/watch.md).
  const std::vector<native_string> watchTargets;
  const watch_settings settings;
  const std::shared_ptr<watch_sink> sink;

  std::atomic<bool> running{true};
  std::atomic<bool> rootRemoved{false};
  std::atomic<std::int32_t> openLoops{0};
  mutable reader_share readers;
  // Index 0 wakes the file-mode loop, 1 the directory-mode loop.
  async_auto_reset_event dirDeletedChangeEvents[2];

  // A cancellation source for one pending read, registered until the read
  // ends; CancelPendingReads cancels every registered one.
  std::shared_ptr<cancellation_source> new_read_source();
  void forget_read_source(const std::shared_ptr<cancellation_source>& source);
  void CancelPendingReads();

  // Stops the session: clears `running`, cancels the pending reads, its
  // queued blocking work and metadata retries, and wakes loops waiting for
  // a deleted root. True for the first call only.
  bool stop();
  // Cancelled by stop(): blocking work still queued ends at once.
  cancellation_token stop_token() const noexcept { return stop_source_.token(); }
  // Set by stop(): ends the metadata retries of the session's items.
  const std::shared_ptr<std::atomic<bool>> stopped = std::make_shared<std::atomic<bool>>(false);

  // A name that is not valid Unicode (relative to the root): reported once
  // per session as an error event, never as a change.
  void report_invalid_name(const native_string& relative);

  // Event ordering. Each loop numbers the records it reads (with the name
  // and action of each, kept for finer ordering later); classification
  // runs in parallel, and the flush hands on only the longest run of
  // finished records from the oldest, so the events of one loop reach
  // script in the order of its records.
  std::uint64_t next_sequence(bool dir_mode, native_string name = {}, std::uint32_t action = 0);
  // Classification of record `seq` of a loop produced `events` (maybe none).
  // True when this let the deliverable run grow (a flush is worth it).
  bool finish_record(bool dir_mode, std::uint64_t seq, std::vector<watch_event> events);
  // A folder that appears is listed after its watch is in place, so a file
  // created in it at that moment is both listed and reported by the system:
  // the second "add"/"addDir" of the same item (same path, kind and file
  // id) within 10 s is dropped, whichever came first, unless the item was
  // removed in between.
  // Takes every event whose records and all earlier ones are classified.
  std::vector<watch_event> take_deliverable();
  // Hands the deliverable events to the sink. Serialised, so that two
  // flushes cannot pass their batches on out of order.
  void flush();

 private:
  std::mutex mutex_;
  std::mutex flush_mutex_;
  std::vector<std::shared_ptr<cancellation_source>> cancelSources_;
  struct pending_record {
    native_string name;
    native_string pair_name;  // a renamed-new record: the old name before it
    bool done = false;
    std::vector<watch_event> events;
  };
  struct ordered {
    std::uint64_t next_assigned = 0;
    std::map<std::uint64_t, pending_record> pending;
    native_string last_renamed_old;
    bool last_was_renamed_old = false;
  };
  ordered loops_[2];
  std::vector<watch_event> deliverable_;
  // Caller holds mutex_. False when `e` repeats an add already delivered.
  bool keep(const watch_event& e);
  struct added {
    bool is_file;
    std::uint64_t ino;
    std::int64_t at_ms;
  };
  std::unordered_map<native_string, added> recent_adds_;
  std::deque<std::pair<std::int64_t, native_string>> add_times_;
  std::vector<native_string> invalid_reported_;
  cancellation_source stop_source_;
};

}  // namespace ostrel::watch
