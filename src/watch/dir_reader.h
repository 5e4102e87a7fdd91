// The platform half of a watch loop: the session's root opened for one mode
// and read batch by batch. Windows: a directory handle on the I/O service's
// completion port and overlapped ReadDirectoryChangesW calls. Linux: an
// inotify descriptor with a watch on every folder of the tree, read through
// the I/O service's readiness waits. Both hand back portable change_records
// named relative to the root.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "change_records.h"
#include "runtime/cancellation.h"
#include "runtime/task.h"

namespace ostrel::watch {

class WatchData;

struct read_outcome {
  enum class kind {
    records,    // `records` holds at least one change
    overflow,   // changes were lost (the system's buffer overflowed)
    failed,     // the read failed with `error`
    cancelled,  // the session cancelled the read
  };
  kind what = kind::failed;
  std::uint32_t error = 0;
  // failed: retrying cannot help (a share that does not support change
  // notification at all); the loop reports it once and ends.
  bool permanent = false;
  // records: at least one change, or at least one notice below.
  std::vector<change_record> records;
  // Notices that come with records. Folders that could not be watched
  // since the last read (Linux: the inotify watch limit, or another
  // failure to add a watch), with the system's error of the last one.
  std::uint32_t unwatched_folders = 0;
  std::uint32_t unwatched_error = 0;
  // Names relative to the root that are not valid Unicode, never reported
  // as changes (each is reported once as an error).
  std::vector<native_string> invalid_names;
};

class dir_reader {
 public:
  virtual ~dir_reader() = default;
  // One read. Blocking work inside (reading, adding watches) runs on the
  // blocking executor; the task may resume anywhere but on the main thread.
  virtual task<read_outcome> read(cancellation_token token) = 0;
};

struct open_result {
  std::unique_ptr<dir_reader> reader;
  std::uint32_t error = 0;  // the system's error when `reader` is empty
};

// The error code of a root that does not exist (ERROR_FILE_NOT_FOUND on
// Windows, ENOENT on Linux: both 2).
inline constexpr std::uint32_t error_root_not_found = 2;
// The system's error code reported for an overflow (ERROR_NOTIFY_ENUM_DIR
// on Windows; the same number on Linux, where inotify has none).
inline constexpr std::uint32_t error_overflow = 1022;
// The error code of folders that could not be watched when the system gave
// no reason.
inline constexpr std::uint32_t error_unwatched = 28;

// Opens `w`'s root for one mode. Blocks (a network share, a big tree to put
// watches on): call it after on_blocking(). Records the call statistic
// "CreateFileW(WatchLoop)".
open_result open_dir_reader(const WatchData& w, bool dir_mode);

// The system's text for an error code (FormatMessageW on Windows, strerror
// on Linux), without a trailing line break.
std::string system_message(std::uint32_t code);

// An item that is neither a regular file nor a folder (a FIFO, a socket, a
// device, or a link to one of them): never reported. Follows links. False
// on Windows, and for an item that cannot be read.
bool special_file(const native_string& path);

// Whether the root is there (its metadata can be read, following a link).
// Blocks: call it on a blocking thread.
bool root_present(const native_string& path);

// Whether `path` is too long for the system to take in one call (Linux:
// PATH_MAX); its metadata is then not read by path.
bool path_beyond_limit(const native_string& path) noexcept;

}  // namespace ostrel::watch
