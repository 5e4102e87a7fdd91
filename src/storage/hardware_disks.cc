#include "hardware_disks.h"

#include <atomic>
#include <exception>

#include "com_guard.h"
#include "runtime/log.h"
#include "telemetry/telemetry.h"

namespace ostrel::storage {

namespace {

std::atomic<bool> g_big_list_reported{false};

struct logical_disk {
  std::string file_system;
  std::uint64_t size = 0;
  std::uint64_t free_space = 0;
  std::string device_id;
  std::uint32_t drive_type = 0;
};

std::wstring wide_ascii(std::string_view text) {
  return std::wstring(text.begin(), text.end());
}

}  // namespace

std::optional<std::int64_t> disk_number_of_device_id(std::string_view device_id) {
  std::size_t end = device_id.size();
  std::size_t begin = end;
  while (begin > 0 && device_id[begin - 1] >= '0' && device_id[begin - 1] <= '9') --begin;
  // More than 9 digits cannot be a disk number (and could overflow).
  if (begin == end || end - begin > 9) return std::nullopt;
  std::int64_t n = 0;
  for (std::size_t i = begin; i < end; ++i) n = n * 10 + (device_id[i] - '0');
  return n;
}

std::int64_t disk_number_for(volume_api& volumes, const std::string& device_id) {
  std::int64_t number = no_disk_number;
  std::uint32_t error = 0;
  std::unique_ptr<volume_device> volume = volumes.open_volume("\\\\.\\" + device_id, error);
  if (!volume) {
    log::wout(L"Error opening volume: " + std::to_wstring(error));
  } else {
    std::uint32_t disk = 0;
    if (std::uint32_t e = volume->disk_extents(disk); e != 0) {
      log::wout(L"DeviceIoControl failed: " + std::to_wstring(e));
    } else {
      number = disk;
    }
  }
  if (number == no_disk_number) log::err("Failed to get GetDiskNumberFromMountedDrive by DeviceID");
  return number;
}

std::uint32_t storage_type_for(volume_api& volumes, const std::string& device_id) {
  std::uint32_t error = 0;
  std::string name = volumes.volume_name(device_id + "\\", error);
  if (name.empty()) {
    log::wout(L"Could not get the volume name of " + wide_ascii(device_id) + L": " + std::to_wstring(error));
    return unknown_storage;
  }
  if (name.back() == '\\') name.pop_back();
  std::unique_ptr<volume_device> volume = volumes.open_volume_shared(name, error);
  if (!volume) return unknown_storage;
  bool penalty = false;
  std::uint32_t seek_error = volume->seek_penalty(penalty);
  if (seek_error == 0) return penalty ? hdd : ssd;
  bool trim = false;
  std::uint32_t trim_error = volume->trim(trim);
  if (trim_error == 0) return trim ? ssd : hdd;
  log::wout(L"Storage property queries failed for " + wide_ascii(device_id) + L": seek penalty " +
            std::to_wstring(seek_error) + L", trim " + std::to_wstring(trim_error));
  return unknown_storage;
}

void apply_physical_disk(disk_record& disk, const physical_disk* physical) {
  if (!physical) return;
  disk.interface_type = physical->interface_type;
  disk.media_type = physical->media_type;
  disk.model = physical->model;
  // Exactly these two spellings: other letter cases are not a USB disk here.
  if (disk.drive_type == 2 && (physical->interface_type == "USB" || physical->interface_type == "usb")) {
    disk.storage_type = storage_type_name(usb);
  } else if (disk.storage_type == storage_type_name(unknown_storage) &&
             physical->model.find("USB") != std::string::npos) {
    // A disk that answered no storage property: a model such as "SanDisk
    // Cruzer USB Device" still says what it is.
    disk.storage_type = storage_type_name(usb);
  }
}

bool report_big_disk_list(std::size_t count) {
  if (count <= big_disk_list) return false;
  if (g_big_list_reported.exchange(true)) return false;
  telemetry::report_module_event("ostrel:hardwaredisk:biglist", static_cast<std::int32_t>(count), true);
  return true;
}

void query_hardware_disks(com_api& com, volume_api& volumes, const query_limits& limits, collector<disk_record>& out) {
  com_guard guard(com);
  com_apartment apartment(com);
  std::size_t built = 0;
  try {
    std::vector<logical_disk> logical;
    query_outcome o = run_wmi_query(com, logical_disk_query, limits, [&](wmi_object& object) {
      logical_disk l;
      l.file_system = read_text(object.get("FileSystem"));
      l.size = read_size(object.get("Size"));
      l.free_space = read_size(object.get("FreeSpace"));
      l.device_id = read_text(object.get("DeviceID"));
      l.drive_type = read_drive_type(object.get("DriveType"));
      logical.push_back(std::move(l));
    });
    if (o == query_outcome::failed) log::err("WMI query failed.");
    // Stopped by the limits: the caller has answered or is about to.
    if (o == query_outcome::stopped) return;
    std::vector<physical_disk> physical;
    if (!limits.stop_now()) {
      o = run_wmi_query(com, disk_drive_query, limits, [&](wmi_object& object) {
        physical_disk p;
        p.device_id = read_text(object.get("DeviceID"));
        p.model = read_text(object.get("Model"));
        p.size = read_size(object.get("Size"));
        p.status = read_text(object.get("Status"));
        p.serial_number = read_text(object.get("SerialNumber"));
        p.interface_type = read_text(object.get("InterfaceType"));
        p.media_type = read_text(object.get("MediaType"));
        physical.push_back(std::move(p));
      });
      if (o == query_outcome::failed) log::err("WMI query failed.");
      if (o == query_outcome::stopped) return;
    }
    for (const logical_disk& l : logical) {
      if (limits.stop_now()) break;
      disk_record d;
      d.mounted = l.device_id;
      d.drive_type = l.drive_type;
      d.file_system = l.file_system;
      d.free_space = l.free_space;
      d.size = l.size;
      d.disk_number = disk_number_for(volumes, l.device_id);
      d.storage_type = storage_type_name(storage_type_for(volumes, l.device_id));
      const physical_disk* match = nullptr;
      if (d.disk_number != no_disk_number) {
        for (const physical_disk& p : physical) {
          if (disk_number_of_device_id(p.device_id) == d.disk_number) {
            match = &p;
            break;
          }
        }
      }
      apply_physical_disk(d, match);
      out.add(std::move(d));
      ++built;
    }
  } catch (const std::exception& e) {
    log::err(std::string("GetHardwareDiskAsync: ") + e.what());
    log::err("GetHardwareDiskAsync error size exception: size=" + std::to_string(built));
    return;
  }
  report_big_disk_list(built);
}

}  // namespace ostrel::storage
