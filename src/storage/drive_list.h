// The drive list through WMI (Win32_LogicalDisk), and the Linux list from
// the machine's mounts.
#pragma once

#include "storage_records.h"
#include "wmi_api.h"
#include "wmi_query.h"

namespace ostrel::storage {

inline constexpr const char* drive_query =
    "SELECT Caption,FreeSpace,Size,VolumeSerialNumber,Description,DriveType FROM Win32_LogicalDisk";

// Holds a COM guard, runs the drive query and adds one record per object in
// WMI's order. A size that does not convert throws (parse_stoull); the
// records read before it stay in `out`.
void query_drive_list(com_api& com, const query_limits& limits, collector<drive_record>& out);

// One drive record from one Win32_LogicalDisk object (may throw as above).
drive_record read_drive(wmi_object& object);

}  // namespace ostrel::storage
