// The hardware disk list: the logical disks and the physical disks from
// WMI, joined by the disk number each volume's extents give, and each
// volume's storage type from its seek-penalty or trim property.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "storage_records.h"
#include "wmi_api.h"
#include "wmi_query.h"

namespace ostrel::storage {

inline constexpr const char* logical_disk_query =
    "SELECT FileSystem,Size,FreeSpace,DeviceID,DriveType FROM Win32_LogicalDisk";
inline constexpr const char* disk_drive_query =
    "SELECT DeviceID,Model,Size,Status,SerialNumber,InterfaceType,MediaType FROM Win32_DiskDrive";

// The list size above which the big-list statistic is recorded (once per process).
inline constexpr std::size_t big_disk_list = 30;

struct physical_disk {
  std::string device_id;  // "\\.\PHYSICALDRIVE3"
  std::string model;
  std::uint64_t size = 0;
  std::string status;
  std::string serial_number;
  std::string interface_type;
  std::string media_type;
};

// The number a physical disk's DeviceID ends in; none without trailing digits.
std::optional<std::int64_t> disk_number_of_device_id(std::string_view device_id);

// The disk number of the volume `device_id` ("C:"), or no_disk_number
// (each failure logged).
std::int64_t disk_number_for(volume_api& volumes, const std::string& device_id);
// The storage type code of the volume: ssd or hdd from the seek-penalty
// property, else from the trim property, else unknown_storage.
std::uint32_t storage_type_for(volume_api& volumes, const std::string& device_id);

// Fills the physical disk's strings into `disk` and applies the USB rules:
// a removable drive (type 2) whose disk's InterfaceType is exactly "USB" or
// "usb" is "USB"; a disk still "Unknown" whose model contains "USB" is
// "USB". Without a physical disk the three strings stay empty.
void apply_physical_disk(disk_record& disk, const physical_disk* physical);

// Holds a COM guard, runs both queries and adds one record per logical disk
// in the order of the logical-disk query. An exception is logged with the
// list's size so far and ends the list there. A list of more than 30
// records reports the "ostrel:hardwaredisk:biglist" statistic, once per
// process.
void query_hardware_disks(com_api& com, volume_api& volumes, const query_limits& limits, collector<disk_record>& out);

// Records the big-list statistic for a list of `count` entries when it is
// long enough and has not been recorded in this process yet; true when it
// recorded it now.
bool report_big_disk_list(std::size_t count);

}  // namespace ostrel::storage
