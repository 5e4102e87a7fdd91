// Where the drive and disk lists come from: WMI and the volume controls on
// Windows, the mounts, statvfs and sysfs on Linux, or (in tests) a machine
// described by the test. A source's calls block and run on a job thread.
#pragma once

#include <chrono>
#include <memory>

#include "storage_records.h"
#include "wmi_api.h"
#include "wmi_query.h"

namespace ostrel::storage {

class storage_source {
 public:
  virtual ~storage_source() = default;
  // Each adds its records to `out` as they are read; they may throw after
  // adding some (a size that does not convert).
  virtual void drives(const query_limits& limits, collector<drive_record>& out) = 0;
  virtual void disks(const query_limits& limits, collector<disk_record>& out) = 0;
};

// The WMI logic over the given COM and volume calls. Jobs take turns; a job
// queries alongside once the query holding the turn has run `stuck_after`
// (or it has waited half of its own time limit).
std::shared_ptr<storage_source> make_wmi_source(std::shared_ptr<com_api> com, std::shared_ptr<volume_api> volumes,
                                                std::chrono::milliseconds stuck_after = std::chrono::seconds(30));

// This machine's source (storage_source_win.cc, storage_source_linux.cc).
std::shared_ptr<storage_source> system_storage_source();

}  // namespace ostrel::storage
