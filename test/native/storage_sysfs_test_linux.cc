// The Linux lists over a fixture copy of a desktop's mountinfo and sysfs
// tree (test/fixtures/storage), and over this machine.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "storage/mounts.h"
#include "storage/storage_source.h"

namespace ostrel::storage {
namespace {

std::string fixtures() {
  return (std::filesystem::path(OSTREL_TEST_FIXTURES) / "storage").string();
}

std::shared_ptr<storage_source> desktop() {
  linux_paths p{fixtures() + "/mountinfo-desktop", fixtures() + "/sys"};
  return make_linux_source(p, [](const std::string& path, std::uint64_t& size, std::uint64_t& free_space) {
    if (path == "/") {
      size = 1000;
      free_space = 250;
      return true;
    }
    size = free_space = 0;
    return false;
  });
}

TEST(StorageSysfs, DisksIndexedByNameSkippingVirtualDevices) {
  block_devices b(fixtures() + "/sys");
  std::map<std::string, std::int64_t> index;
  for (const block_disk& d : b.disks()) index[d.name] = d.index;
  std::map<std::string, std::int64_t> expected = {{"nvme0n1", 0}, {"sda", 1}, {"sdb", 2},
                                                  {"sdc", 3},     {"sdd", 4}, {"sr0", 5}};
  EXPECT_EQ(index, expected);
  bool spanned = false;
  const block_disk* sdb = b.disk_for(8, 17, spanned);
  ASSERT_NE(sdb, nullptr);
  EXPECT_EQ(sdb->name, "sdb");
  EXPECT_TRUE(sdb->usb);
  EXPECT_TRUE(sdb->removable);
  EXPECT_EQ(sdb->model, "Cruzer Blade");          // trailing blanks trimmed
  EXPECT_EQ(b.disk_for(9, 0, spanned), nullptr);  // md0 over two disks
  EXPECT_TRUE(spanned);
  const block_disk* lvm = b.disk_for(253, 0, spanned);  // dm-0 over one partition
  ASSERT_NE(lvm, nullptr);
  EXPECT_EQ(lvm->name, "nvme0n1");
  EXPECT_FALSE(spanned);
  EXPECT_EQ(b.disk_for(0, 50, spanned), nullptr);
}

// Each mount of the desktop, in mountinfo order, as a drive and as a disk
// (a USB disk that is not removable is no "USB").
TEST(StorageSysfs, DesktopDrivesAndDisks) {
  struct expect {
    const char* mounted;
    std::uint32_t drive_type;
    const char* type;
    std::int64_t number;
    const char* interface_type;
    const char* file_system;
  };
  const expect e[] = {{"/", 3, "SSD", 0, "NVMe", "ext4"},
                      {"/boot/efi", 3, "SSD", 0, "NVMe", "vfat"},
                      {"/home", 3, "HDD", 1, "ATA", "btrfs"},
                      {"/media/user/STICK", 2, "USB", 2, "USB", "vfat"},
                      {"/media/user/My Disk", 2, "USB", 2, "USB", "exfat"},
                      {"/mnt/nas", 4, "Unknown", -1000, "", "nfs4"},
                      {"/media/user/DVD", 5, "HDD", 5, "ATA", "iso9660"},
                      {"/mnt/raid", 3, "Unknown", -1000, "", "ext4"},
                      {"/mnt/lvm", 3, "SSD", 0, "NVMe", "xfs"},
                      {"/mnt/remote", 4, "Unknown", -1000, "", "fuse.sshfs"},
                      {"/snap/core/1", 3, "Unknown", -1000, "", "squashfs"},
                      {"/media/user/USBHDD", 3, "HDD", 4, "USB", "ext4"}};
  collector<drive_record> drives;
  desktop()->drives({}, drives);
  std::vector<drive_record> r = drives.take();
  collector<disk_record> disks;
  desktop()->disks({}, disks);
  std::vector<disk_record> d = disks.take();
  ASSERT_EQ(r.size(), std::size(e));
  ASSERT_EQ(d.size(), std::size(e));
  for (std::size_t i = 0; i < std::size(e); ++i) {
    EXPECT_EQ(r[i].caption, e[i].mounted);
    EXPECT_EQ(r[i].drive_type, e[i].drive_type) << e[i].mounted;
    EXPECT_EQ(d[i].mounted, e[i].mounted);
    EXPECT_EQ(d[i].storage_type, e[i].type) << e[i].mounted;
    EXPECT_EQ(d[i].disk_number, e[i].number) << e[i].mounted;
    EXPECT_EQ(d[i].interface_type, e[i].interface_type) << e[i].mounted;
    EXPECT_EQ(d[i].file_system, e[i].file_system) << e[i].mounted;
  }
  EXPECT_EQ(r[0].size, 1000u);
  EXPECT_EQ(r[0].used, 750u);
  EXPECT_EQ(r[0].description, "Local Fixed Disk");
  EXPECT_EQ(r[3].description, "Removable Disk");
  EXPECT_EQ(d[0].model, "Samsung SSD 980 PRO 1TB");
  EXPECT_EQ(d[0].media_type, "Fixed hard disk media");
  EXPECT_EQ(d[3].media_type, "Removable Media");
  EXPECT_EQ(d[5].media_type, "");
}

TEST(StorageSysfs, ThisMachineListsItsRoot) {
  collector<drive_record> drives;
  system_storage_source()->drives({}, drives);
  std::vector<drive_record> d = drives.take();
  bool root = false;
  for (const drive_record& r : d) {
    if (r.caption == "/") {
      root = true;
      EXPECT_GT(r.size, 0u);
    }
    EXPECT_NE(r.description, "");
  }
  EXPECT_TRUE(root);
  collector<disk_record> disks;
  system_storage_source()->disks({}, disks);
  EXPECT_EQ(disks.take().size(), d.size());
}

TEST(StorageSysfs, MissingFilesGiveEmptyLists) {
  linux_paths p{fixtures() + "/no-such-mountinfo", fixtures() + "/no-such-sys"};
  collector<drive_record> out;
  testing::internal::CaptureStderr();
  make_linux_source(p, [](const std::string&, std::uint64_t&, std::uint64_t&) { return false; })->drives({}, out);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(out.take().empty());
  EXPECT_NE(err.find("Cannot read the mounts"), std::string::npos);
}

}  // namespace
}  // namespace ostrel::storage
