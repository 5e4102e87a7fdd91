// The Linux facts behind the drive and disk lists: mounted file systems
// from /proc/self/mountinfo, block devices from sysfs, and the rules that
// turn them into the same records Windows gives. Portable code over text
// and a sysfs tree, so that fixture copies can stand in for the machine's.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "storage_source.h"

namespace ostrel::storage {

struct mount_entry {
  unsigned major = 0;
  unsigned minor = 0;
  std::string root;         // the part of the file system mounted ("/" for all of it)
  std::string mount_point;  // unescaped
  std::string fs_type;
  std::string source;
};

// The lines of a mountinfo file; malformed lines are skipped.
std::vector<mount_entry> parse_mountinfo(std::string_view text);
// Kernel and memory file systems that hold no user data (proc, sysfs,
// cgroup, tmpfs, ...).
bool is_pseudo_fs(std::string_view fs_type);
// nfs, cifs, sshfs and the like.
bool is_network_fs(std::string_view fs_type);
// The mounts the lists show: no pseudo file system, and no bind mount of a
// part of a file system (root other than "/"), except btrfs subvolumes.
bool is_listed_mount(const mount_entry& m);

// A disk under <sysfs>/block.
struct block_disk {
  std::string name;  // "sda", "nvme0n1"
  std::int64_t index = -1;
  bool removable = false;
  bool usb = false;
  std::optional<bool> rotational;
  std::string model;
  std::string interface_type;  // "USB", "NVMe", "ATA", "SCSI", "virtio", "MMC" or ""
};

// The disks of a sysfs tree and the device numbers of their partitions.
class block_devices {
 public:
  explicit block_devices(const std::string& sysfs_root);
  // The disk holding device major:minor, following device-mapper and RAID
  // devices down to their one underlying disk. Null for a device of no disk
  // (an overlay, a network share) and for one over several disks
  // (`spanned` set).
  const block_disk* disk_for(unsigned major, unsigned minor, bool& spanned) const;
  const std::vector<block_disk>& disks() const { return disks_; }

 private:
  struct node {
    std::string disk;                 // the disk this device is or belongs to
    std::vector<std::string> slaves;  // for a device over others
  };
  const block_disk* resolve(const std::string& name, bool& spanned, int depth) const;

  std::vector<block_disk> disks_;
  std::map<std::pair<unsigned, unsigned>, std::string> by_device_;  // dev -> block name
  std::map<std::string, node> nodes_;                               // block or partition name -> node
};

// The WMI drive type code for a mount: 4 network, 5 compact disc, 2
// removable, 3 local.
std::uint32_t linux_drive_type(const mount_entry& m, const block_disk* disk);
// The description text of a drive type, as Windows words it.
const char* drive_type_description(std::uint32_t drive_type);

// Sizes of a mounted file system: total and free bytes for unprivileged
// users; false (the reason logged) on failure.
using space_query = std::function<bool(const std::string& path, std::uint64_t& size, std::uint64_t& free_space)>;

struct linux_paths {
  std::string mountinfo = "/proc/self/mountinfo";
  std::string sysfs = "/sys";
};

std::shared_ptr<storage_source> make_linux_source(linux_paths paths, space_query space);

}  // namespace ostrel::storage
