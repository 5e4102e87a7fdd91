// The reading of mountinfo text and the rules that turn mounts into drives.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>

#include "storage/mounts.h"

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
