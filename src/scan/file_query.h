// Filling a FileInfo's metadata: one query per attempt, and the retrying
// task FillFileInfoAsync that waits 100 ms on the I/O service's timer
// between attempts.
#pragma once

#include <atomic>
#include <memory>

#include "file_info.h"
#include "runtime/task.h"

namespace ostrel::scan {

enum class query_outcome {
  filled,   // metadata written into the record
  denied,   // no right to read it: the record becomes unreadable
  missing,  // the entry is gone
  special,  // neither a regular file nor a folder (a FIFO, a socket, a device, or a link to one): not a file to report
  retry,    // a transient failure, already logged: try again later
};

// One attempt on the record's native path; logs its failure lines and
// records the call statistic.
query_outcome query_file_info(FileInfo& info);

// Applies one attempt's outcome to the record, as FillFileInfoAsync does.
// Returns the task's answer for a final outcome, or nothing for retry.
inline int settle_outcome(FileInfo& info, query_outcome outcome) {
  switch (outcome) {
    case query_outcome::filled:
      return 1;
    case query_outcome::denied:
      info.readable = false;
      info.clear_metadata();
      return 1;
    case query_outcome::missing:
    case query_outcome::special:
      return 0;
    case query_outcome::retry:
      break;
  }
  return -1;
}

// The last attempt number; attempts run from 0 to this.
inline constexpr int max_attempt = 10;

// Fills `info`, retrying a transient failure 100 ms apart, for attempts
// `attempt` to 10. True: the record may be used as it stands (filled, or
// unreadable). False: the entry is gone, is no regular file or folder
// (query_outcome::special), or every attempt failed (then the record is
// unreadable with zero metadata). A set `stop` ends the retries
// early with false.
task<bool> FillFileInfoAsync(std::shared_ptr<FileInfo> info, int attempt = 0,
                             std::shared_ptr<const std::atomic<bool>> stop = nullptr);

}  // namespace ostrel::scan
