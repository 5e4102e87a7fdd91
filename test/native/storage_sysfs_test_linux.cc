// The Linux lists: mountinfo text read back, and the lists over a fixture
// copy of a desktop's mountinfo and sysfs tree (test/fixtures/storage).
// This machine's lists are checked against statvfs in storage.test.js.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <tuple>

#include "storage/mounts.h"
#include "storage/storage_source.h"

namespace ostrel::storage {
namespace {

// The kernel writes space, tab, newline and backslash in a field as octal
// escapes: mounts generated from a fixed seed, written so with optional
// tags, among lines that are no mount, read back as they were.
TEST(StorageMounts, ReadsBackGeneratedMountsAmongLinesThatAreNone) {
  const char* not_mounts[] = {"",
                              "too short",
                              "1 2 x:y / /bad rw - ext4 /dev/x rw",
                              "1 2 8: / /bad rw - ext4 /dev/x rw",
                              "1 2 8:1 / /bad rw shared:1 ext4 /dev/x rw",
                              "1 2 8:1 / /bad rw - ext4"};
  std::mt19937 rng(5);
  auto text = [&](const char* first) {
    std::string s = first;
    for (auto n = rng() % 8; n > 0; --n) s += " \t\n\\a\xC3\xA9/-:."[rng() % 11];
    return s;
  };
  auto escaped = [](const std::string& s) {
    std::string out;
    for (char c : s) {
      if (c == ' ' || c == '\t' || c == '\n' || c == '\\') {
        out += '\\' + std::to_string(c / 64) + std::to_string(c / 8 % 8) + std::to_string(c % 8);
      } else {
        out += c;
      }
    }
    return out;
  };
  for (int round = 0; round < 200; ++round) {
    std::vector<mount_entry> model;
    std::string mountinfo;
    for (auto n = rng() % 6; n > 0; --n) {
      mount_entry m{static_cast<unsigned>(rng() % 300),
                    static_cast<unsigned>(rng() % 1000),
                    text("/"),
                    text("/"),
                    text("t"),
                    text("s")};
      mountinfo += std::to_string(rng() % 100) + " 1 " + std::to_string(m.major) + ":" + std::to_string(m.minor) + " " +
                   escaped(m.root) + " " + escaped(m.mount_point) + " rw" + (rng() % 2 ? " shared:4 master:2" : "") +
                   " - " + escaped(m.fs_type) + " " + escaped(m.source) + " rw\n" + not_mounts[rng() % 6] + "\n";
      model.push_back(m);
    }
    std::vector<mount_entry> got = parse_mountinfo(mountinfo.substr(0, mountinfo.size() - 1));
    ASSERT_EQ(got.size(), model.size()) << mountinfo;
    for (std::size_t i = 0; i < got.size(); ++i) {
      EXPECT_EQ(std::tie(got[i].major, got[i].minor, got[i].root, got[i].mount_point, got[i].fs_type, got[i].source),
                std::tie(model[i].major, model[i].minor, model[i].root, model[i].mount_point, model[i].fs_type,
                         model[i].source))
          << mountinfo;
    }
  }
}

// The rules the desktop below does not reach: a network share of a
// sub-folder and an overlay are listed; udf is a disc, cifs a share.
TEST(StorageMounts, RulesBeyondTheDesktop) {
  block_disk fixed;
  fixed.name = "sda";
  struct row {
    const char* root;
    const char* fs;
    bool listed;
    std::uint32_t type;
  };
  const row cases[] = {{"/export/sub", "nfs", true, 4}, {"/", "overlay", true, 3}, {"/", "udf", true, 5},
                       {"/", "cifs", true, 4},          {"/", "cgroup", false, 3}, {"/x", "xfs", false, 3}};
  for (const row& c : cases) {
    mount_entry m;
    m.root = c.root;
    m.fs_type = c.fs;
    EXPECT_EQ(is_listed_mount(m), c.listed) << c.fs;
    EXPECT_EQ(linux_drive_type(m, &fixed), c.type) << c.fs;
  }
  EXPECT_STREQ(drive_type_description(0), "Unknown");  // WMI's text for type 0
}

std::string fixtures() {
  return (std::filesystem::path(OSTREL_TEST_FIXTURES) / "storage").string();
}

// Each listed mount of the desktop, in mountinfo order (pseudo file systems
// and a bind mount of a folder left out), as a drive and as a disk: disks
// numbered by name without loop devices, a volume over one partition
// (dm-0) or over two disks (md0), a USB disk that is not removable (no
// "USB").
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
