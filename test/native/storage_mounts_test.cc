// The reading of mountinfo text and the rules that turn mounts into drives.
#include <gtest/gtest.h>

#include <string>

#include "storage/mounts.h"

namespace ostrel::storage {
namespace {

TEST(StorageMounts, ParsesFieldsOptionalTagsAndEscapes) {
  const char* text =
      "27 1 254:0 / / rw,relatime - ext4 /dev/vda rw,discard\n"
      "34 28 8:18 / /media/user/My\\040Disk\\011Tab rw shared:41 master:2 - exfat /dev/sdb2 rw\n"
      "31 28 8:1 /@home /home rw,relatime shared:31 - btrfs /dev/sda1 rw\n"
      "\n"
      "too short\n"
      "1 2 x:y / /bad rw - ext4 /dev/x rw\n"
      "40 28 0:60 / /mnt/back\\134slash rw - fuse.sshfs u@h:/ rw";
  std::vector<mount_entry> m = parse_mountinfo(text);
  ASSERT_EQ(m.size(), 4u);
  EXPECT_EQ(m[0].major, 254u);
  EXPECT_EQ(m[0].minor, 0u);
  EXPECT_EQ(m[0].mount_point, "/");
  EXPECT_EQ(m[0].fs_type, "ext4");
  EXPECT_EQ(m[0].source, "/dev/vda");
  EXPECT_EQ(m[1].mount_point, "/media/user/My Disk\tTab");
  EXPECT_EQ(m[1].fs_type, "exfat");
  EXPECT_EQ(m[2].root, "/@home");
  EXPECT_EQ(m[3].mount_point, "/mnt/back\\slash");
}

TEST(StorageMounts, WhichMountsAreListed) {
  struct row {
    const char* root;
    const char* fs;
    bool listed;
  };
  const row cases[] = {
      {"/", "ext4", true},       {"/", "proc", false},   {"/", "sysfs", false},         {"/", "tmpfs", false},
      {"/", "cgroup2", false},   {"/", "overlay", true}, {"/var/lib/x", "ext4", false},  // a bind mount of a folder
      {"/@home", "btrfs", true}, {"/", "nfs4", true},    {"/export/sub", "nfs", true},  {"/", "fuse.sshfs", true},
      {"/", "squashfs", true},
  };
  for (const row& c : cases) {
    mount_entry m;
    m.root = c.root;
    m.fs_type = c.fs;
    EXPECT_EQ(is_listed_mount(m), c.listed) << c.root << " " << c.fs;
  }
}

TEST(StorageMounts, DriveTypesAndTheirTexts) {
  block_disk removable;
  removable.name = "sdb";
  removable.removable = true;
  block_disk fixed;
  fixed.name = "sda";
  block_disk cd;
  cd.name = "sr0";
  struct row {
    const char* fs;
    const block_disk* disk;
    std::uint32_t type;
    const char* text;
  };
  const row cases[] = {
      {"ext4", &fixed, 3, "Local Fixed Disk"},
      {"vfat", &removable, 2, "Removable Disk"},
      {"nfs4", nullptr, 4, "Network Connection"},
      {"cifs", &fixed, 4, "Network Connection"},
      {"fuse.sshfs", nullptr, 4, "Network Connection"},
      {"iso9660", nullptr, 5, "CD-ROM Disc"},
      {"udf", &cd, 5, "CD-ROM Disc"},
      {"overlay", nullptr, 3, "Local Fixed Disk"},
  };
  for (const row& c : cases) {
    mount_entry m;
    m.fs_type = c.fs;
    EXPECT_EQ(linux_drive_type(m, c.disk), c.type) << c.fs;
    EXPECT_STREQ(drive_type_description(c.type), c.text);
  }
  EXPECT_STREQ(drive_type_description(0), "Unknown");
}

}  // namespace
}  // namespace ostrel::storage
