// The Linux lists over a fixture copy of a desktop's mountinfo and sysfs
// tree (test/fixtures/storage).
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>

#include "storage/mounts.h"
#include "storage/storage_source.h"

namespace ostrel::storage {
namespace {

// Lines that are no mount are passed over; octal escapes are read back
// (round trips of any bytes: fuzz_mountinfo).
TEST(StorageMounts, ReadsMountsAmongLinesThatAreNone) {
  const std::string text =
      "\ntoo short\n1 2 x:y / /bad rw - ext4 /dev/x rw\n1 2 8: / /bad rw - ext4 /dev/x rw\n"
      "1 2 8:1 / /bad rw shared:1 ext4 /dev/x rw\n1 2 8:1 / /bad rw - ext4\n"
      "36 1 8:17 /a\\040b /m\\011t\\012\\134 rw shared:4 master:2 - fuse.x s\\040rc rw\n7 1 0:5 / /x rw - t s rw";
  std::vector<mount_entry> got = parse_mountinfo(text);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(std::tie(got[0].major, got[0].minor, got[0].root, got[0].mount_point, got[0].fs_type, got[0].source),
            std::make_tuple(8u, 17u, "/a b", "/m\tt\n\\", "fuse.x", "s rc"));
  EXPECT_EQ(std::tie(got[1].major, got[1].minor, got[1].mount_point), std::make_tuple(0u, 5u, "/x"));
}

// Beyond the desktop below: a share of a sub-folder is listed; udf is a
// disc on any device; type 0 reads as WMI's text.
TEST(StorageMounts, RulesBeyondTheDesktop) {
  mount_entry m;
  m.root = "/export/sub";
  m.fs_type = "nfs";
  EXPECT_TRUE(is_listed_mount(m));
  EXPECT_EQ(linux_drive_type(m, nullptr), 4u);
  m.fs_type = "udf";
  EXPECT_EQ(linux_drive_type(m, nullptr), 5u);
  EXPECT_STREQ(drive_type_description(0), "Unknown");
}

std::string fixtures() {
  return (std::filesystem::path(OSTREL_TEST_FIXTURES) / "storage").string();
}

// Pseudo file systems and a bind mount of a folder left out; disks numbered
// by name without loop devices; dm-0 over one partition, md0 over two disks.
TEST(StorageSysfs, DesktopDrivesAndDisks) {
  struct expect {
    const char* mounted;
    const char* description;
    const char* type;
    std::int64_t number;
    const char* interface_type;
    const char* file_system;
  };
  const expect e[] = {{"/", "Local Fixed Disk", "SSD", 0, "NVMe", "ext4"},
                      {"/boot/efi", "Local Fixed Disk", "SSD", 0, "NVMe", "vfat"},
                      {"/home", "Local Fixed Disk", "HDD", 1, "ATA", "btrfs"},
                      {"/media/user/STICK", "Removable Disk", "USB", 2, "USB", "vfat"},
                      {"/media/user/My Disk", "Removable Disk", "USB", 2, "USB", "exfat"},
                      {"/mnt/nas", "Network Connection", "Unknown", -1000, "", "nfs4"},
                      {"/media/user/DVD", "CD-ROM Disc", "HDD", 5, "ATA", "iso9660"},
                      {"/mnt/raid", "Local Fixed Disk", "Unknown", -1000, "", "ext4"},
                      {"/mnt/lvm", "Local Fixed Disk", "SSD", 0, "NVMe", "xfs"},
                      {"/mnt/remote", "Network Connection", "Unknown", -1000, "", "fuse.sshfs"},
                      {"/snap/core/1", "Local Fixed Disk", "Unknown", -1000, "", "squashfs"},
                      {"/media/user/USBHDD", "Local Fixed Disk", "HDD", 4, "USB", "ext4"}};
  auto desktop = make_linux_source({fixtures() + "/mountinfo-desktop", fixtures() + "/sys"},
                                   [](const std::string& path, std::uint64_t& size, std::uint64_t& free_space) {
                                     size = path == "/" ? 1000 : 0;
                                     free_space = path == "/" ? 250 : 0;
                                     return path == "/";
                                   });
  collector<drive_record> drives;
  desktop->drives({}, drives);
  std::vector<drive_record> r = drives.take();
  collector<disk_record> disks;
  desktop->disks({}, disks);
  std::vector<disk_record> d = disks.take();
  ASSERT_EQ(r.size(), std::size(e));
  ASSERT_EQ(d.size(), std::size(e));
  for (std::size_t i = 0; i < std::size(e); ++i) {
    EXPECT_EQ(std::tie(r[i].caption, r[i].description), std::tie(e[i].mounted, e[i].description));
    EXPECT_EQ(r[i].drive_type, d[i].drive_type) << e[i].mounted;
    EXPECT_EQ(std::tie(d[i].mounted, d[i].storage_type, d[i].disk_number, d[i].interface_type, d[i].file_system),
              std::tie(e[i].mounted, e[i].type, e[i].number, e[i].interface_type, e[i].file_system));
  }
  EXPECT_EQ(std::tie(r[0].size, r[0].free_space, r[0].used), std::make_tuple(1000u, 250u, 750u));
  EXPECT_EQ(std::tie(d[0].size, d[0].free_space), std::make_tuple(1000u, 250u));
  EXPECT_EQ(d[0].model, "Samsung SSD 980 PRO 1TB");
  EXPECT_EQ(d[0].media_type, "Fixed hard disk media");
  EXPECT_EQ(d[3].media_type, "Removable Media");
  EXPECT_EQ(d[3].model, "Cruzer Blade");  // trailing blanks trimmed
  EXPECT_EQ(d[5].media_type, "");
}

TEST(StorageSysfs, MissingFilesGiveEmptyLists) {
  linux_paths p{fixtures() + "/no-such-mountinfo", fixtures() + "/no-such-sys"};
  collector<drive_record> out;
  ::testing::internal::CaptureStderr();
  make_linux_source(p, [](const std::string&, std::uint64_t&, std::uint64_t&) { return false; })->drives({}, out);
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_TRUE(out.take().empty());
  EXPECT_NE(err.find("Cannot read the mounts"), std::string::npos);
}

}  // namespace
}  // namespace ostrel::storage
