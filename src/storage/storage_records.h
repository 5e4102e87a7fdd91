// The records the drive and disk lists produce, and the collector a
// blocking job fills while the call that started it may already have
// answered script (a time limit ran out).
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ostrel::storage {

// One logical drive of GetDriveList.
struct drive_record {
  std::string description;  // "filesystem" toward script
  std::uint64_t size = 0;
  std::uint64_t used = 0;  // size - free space, wrapping when free space is larger
  std::uint64_t free_space = 0;
  std::string capacity;  // never filled
  std::string caption;   // "mounted"
  std::uint32_t drive_type = 0;
};

// Storage type codes: what the device queries find, and "USB" from the rows.
enum storage_type : std::uint32_t { ssd = 0, hdd = 1, usb = 2, unknown_storage = 3 };
// "SSD", "HDD", "USB", or "Unknown" for any other code.
const char* storage_type_name(std::uint32_t code) noexcept;

// No physical disk is known for the volume.
inline constexpr std::int64_t no_disk_number = -1000;

// One mounted logical disk of GetHardwareDisk.
struct disk_record {
  std::string mounted;
  std::string storage_type = "Unknown";
  std::int64_t disk_number = no_disk_number;
  std::uint32_t drive_type = 0;
  std::string file_system;
  std::uint64_t free_space = 0;
  std::uint64_t size = 0;
  std::string interface_type;
  std::string media_type;
  std::string model;
};

// Records appended by a job, taken whole or in part by the caller. Once
// taken, the job's later records are dropped and `abandoned` tells it to
// stop early.
template <typename T>
class collector {
 public:
  void add(T record) {
    std::lock_guard lock(mutex_);
    if (!taken_) records_.push_back(std::move(record));
  }
  // The records so far; later ones are dropped.
  std::vector<T> take() {
    std::lock_guard lock(mutex_);
    taken_ = true;
    return std::move(records_);
  }
  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return records_.size();
  }
  bool abandoned() const {
    std::lock_guard lock(mutex_);
    return taken_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<T> records_;
  bool taken_ = false;
};

}  // namespace ostrel::storage
