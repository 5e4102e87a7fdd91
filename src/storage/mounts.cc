#include "mounts.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "hardware_disks.h"
#include "runtime/log.h"

namespace ostrel::storage {

namespace fs = std::filesystem;

namespace {

// mountinfo escapes space, tab, newline and backslash as \ooo.
std::string unescape(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] >= '0' && s[i + 1] <= '3' && s[i + 2] >= '0' && s[i + 2] <= '7' &&
        s[i + 3] >= '0' && s[i + 3] <= '7') {
      out.push_back(static_cast<char>((s[i + 1] - '0') * 64 + (s[i + 2] - '0') * 8 + (s[i + 3] - '0')));
      i += 3;
    } else {
      out.push_back(s[i]);
    }
  }
  return out;
}

std::vector<std::string_view> split_fields(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && line[i] == ' ') ++i;
    std::size_t start = i;
    while (i < line.size() && line[i] != ' ') ++i;
    if (i > start) fields.push_back(line.substr(start, i - start));
  }
  return fields;
}

bool parse_dev(std::string_view text, unsigned& major, unsigned& minor) {
  std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0 || colon + 1 >= text.size()) return false;
  auto number = [](std::string_view s, unsigned& out) {
    if (s.empty() || s.size() > 9) return false;
    unsigned v = 0;
    for (char c : s) {
      if (c < '0' || c > '9') return false;
      v = v * 10 + static_cast<unsigned>(c - '0');
    }
    out = v;
    return true;
  };
  return number(text.substr(0, colon), major) && number(text.substr(colon + 1), minor);
}

std::string read_line_of(const fs::path& p) {
  std::ifstream in(p);
  std::string line;
  std::getline(in, line);
  while (!line.empty() && (line.back() == ' ' || line.back() == '\n' || line.back() == '\r' || line.back() == '\t')) {
    line.pop_back();
  }
  return line;
}

bool starts_with_any(std::string_view name, std::initializer_list<std::string_view> prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(), [&](std::string_view p) { return name.starts_with(p); });
}

std::string interface_of(const std::string& device_path) {
  static const std::array<std::pair<const char*, const char*>, 6> kinds = {
      {{"/usb", "USB"}, {"/nvme", "NVMe"}, {"/mmc", "MMC"}, {"/ata", "ATA"}, {"/virtio", "virtio"}, {"/host", "SCSI"}}};
  for (const auto& [marker, name] : kinds) {
    if (device_path.find(marker) != std::string::npos) return name;
  }
  return {};
}

}  // namespace

std::vector<mount_entry> parse_mountinfo(std::string_view text) {
  std::vector<mount_entry> mounts;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    // id parent major:minor root mount-point options [optional...] - type source super-options
    std::vector<std::string_view> f = split_fields(line);
    auto dash = std::find(f.begin(), f.end(), std::string_view("-"));
    if (f.size() < 6 || dash == f.end() || dash - f.begin() < 6 || f.end() - dash < 3) continue;
    mount_entry m;
    if (!parse_dev(f[2], m.major, m.minor)) continue;
    m.root = unescape(f[3]);
    m.mount_point = unescape(f[4]);
    m.fs_type = unescape(dash[1]);
    m.source = unescape(dash[2]);
    mounts.push_back(std::move(m));
  }
  return mounts;
}

bool is_pseudo_fs(std::string_view t) {
  static const std::array<std::string_view, 26> pseudo = {
      "proc",       "sysfs",      "devtmpfs", "devpts",  "tmpfs",          "ramfs",    "cgroup",
      "cgroup2",    "securityfs", "debugfs",  "tracefs", "pstore",         "bpf",      "mqueue",
      "hugetlbfs",  "configfs",   "fusectl",  "autofs",  "binfmt_misc",    "efivarfs", "nsfs",
      "rpc_pipefs", "selinuxfs",  "nfsd",     "devfs",   "fuse.gvfsd-fuse"};
  return std::find(pseudo.begin(), pseudo.end(), t) != pseudo.end();
}

bool is_network_fs(std::string_view t) {
  static const std::array<std::string_view, 15> network = {
      "nfs",  "nfs4",      "cifs",       "smb3",        "smbfs",     "ncpfs",          "afs",  "9p",
      "ceph", "glusterfs", "fuse.sshfs", "fuse.rclone", "fuse.s3fs", "fuse.glusterfs", "davfs"};
  return std::find(network.begin(), network.end(), t) != network.end() || t == "fuse.davfs2";
}

bool is_listed_mount(const mount_entry& m) {
  if (is_pseudo_fs(m.fs_type)) return false;
  return m.root == "/" || m.fs_type == "btrfs" || is_network_fs(m.fs_type);
}

block_devices::block_devices(const std::string& sysfs_root) {
  fs::path block = fs::path(sysfs_root) / "block";
  std::error_code ec;
  std::vector<std::string> names;
  for (fs::directory_iterator it(block, ec), end; !ec && it != end; it.increment(ec)) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  std::int64_t index = 0;
  for (const std::string& name : names) {
    fs::path dir = block / name;
    unsigned major = 0, minor = 0;
    if (parse_dev(read_line_of(dir / "dev"), major, minor)) by_device_[{major, minor}] = name;
    node n;
    n.disk = name;
    for (fs::directory_iterator it(dir / "slaves", ec), end; !ec && it != end; it.increment(ec)) {
      n.slaves.push_back(it->path().filename().string());
    }
    ec.clear();
    std::sort(n.slaves.begin(), n.slaves.end());
    // Partitions: sub-folders with a "partition" file.
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
      std::error_code e2;
      if (!it->is_directory(e2) || !fs::exists(it->path() / "partition", e2)) continue;
      std::string part = it->path().filename().string();
      if (parse_dev(read_line_of(it->path() / "dev"), major, minor)) by_device_[{major, minor}] = part;
      nodes_[part] = node{name, {}};
    }
    ec.clear();
    bool virtual_device = !n.slaves.empty() || starts_with_any(name, {"loop", "ram", "zram"});
    nodes_[name] = std::move(n);
    if (virtual_device) continue;
    block_disk d;
    d.name = name;
    d.index = index++;
    d.removable = read_line_of(dir / "removable") == "1";
    std::string rotational = read_line_of(dir / "queue" / "rotational");
    if (rotational == "1" || rotational == "0") d.rotational = rotational == "1";
    d.model = read_line_of(dir / "device" / "model");
    if (d.model.empty()) d.model = read_line_of(dir / "device" / "name");
    std::string real = fs::weakly_canonical(dir, ec).string();
    ec.clear();
    d.interface_type = interface_of(real);
    d.usb = d.interface_type == "USB";
    disks_.push_back(std::move(d));
  }
}

const block_disk* block_devices::resolve(const std::string& name, bool& spanned, int depth) const {
  auto n = nodes_.find(name);
  if (n == nodes_.end() || depth > 8) return nullptr;
  if (n->second.disk != name) return resolve(n->second.disk, spanned, depth + 1);  // a partition
  if (!n->second.slaves.empty()) {
    if (n->second.slaves.size() > 1) {
      spanned = true;
      return nullptr;
    }
    return resolve(n->second.slaves.front(), spanned, depth + 1);
  }
  for (const block_disk& d : disks_) {
    if (d.name == name) return &d;
  }
  return nullptr;
}

const block_disk* block_devices::disk_for(unsigned major, unsigned minor, bool& spanned) const {
  spanned = false;
  auto it = by_device_.find({major, minor});
  if (it == by_device_.end()) return nullptr;
  return resolve(it->second, spanned, 0);
}

std::uint32_t linux_drive_type(const mount_entry& m, const block_disk* disk) {
  if (is_network_fs(m.fs_type)) return 4;
  if (m.fs_type == "iso9660" || m.fs_type == "udf" || (disk && disk->name.starts_with("sr"))) return 5;
  if (disk && disk->removable) return 2;
  return 3;
}

const char* drive_type_description(std::uint32_t drive_type) {
  switch (drive_type) {
    case 2:
      return "Removable Disk";
    case 3:
      return "Local Fixed Disk";
    case 4:
      return "Network Connection";
    case 5:
      return "CD-ROM Disc";
    case 6:
      return "RAM Disk";
    default:
      return "Unknown";
  }
}

namespace {

class linux_source : public storage_source {
 public:
  linux_source(linux_paths paths, space_query space) : paths_(std::move(paths)), space_(std::move(space)) {}

  void drives(const query_limits& limits, collector<drive_record>& out) override {
    block_devices devices(paths_.sysfs);
    for (const mount_entry& m : listed_mounts()) {
      if (limits.stop_now()) {
        log::err(std::string("Drive list stopped early (") + limits.stop_reason() + ")");
        return;
      }
      bool spanned = false;
      const block_disk* disk = devices.disk_for(m.major, m.minor, spanned);
      drive_record d;
      d.caption = m.mount_point;
      d.drive_type = linux_drive_type(m, disk);
      d.description = drive_type_description(d.drive_type);
      space_(m.mount_point, d.size, d.free_space);
      d.used = d.size - d.free_space;
      out.add(std::move(d));
    }
  }

  void disks(const query_limits& limits, collector<disk_record>& out) override {
    block_devices devices(paths_.sysfs);
    std::size_t count = 0;
    for (const mount_entry& m : listed_mounts()) {
      if (limits.stop_now()) {
        log::err(std::string("Disk list stopped early (") + limits.stop_reason() + ")");
        return;
      }
      bool spanned = false;
      const block_disk* disk = devices.disk_for(m.major, m.minor, spanned);
      disk_record d;
      d.mounted = m.mount_point;
      d.drive_type = linux_drive_type(m, disk);
      d.file_system = m.fs_type;
      space_(m.mount_point, d.size, d.free_space);
      if (disk) {
        d.disk_number = disk->index;
        d.storage_type = disk->rotational ? storage_type_name(*disk->rotational ? hdd : ssd) : "Unknown";
        d.interface_type = disk->interface_type;
        d.media_type = disk->removable ? "Removable Media" : "Fixed hard disk media";
        d.model = disk->model;
        if (d.drive_type == 2 && disk->usb) d.storage_type = storage_type_name(usb);
      }
      out.add(std::move(d));
      ++count;
    }
    report_big_disk_list(count);
  }

 private:
  std::vector<mount_entry> listed_mounts() {
    std::ifstream in(paths_.mountinfo);
    if (!in) {
      log::err_value("Cannot read the mounts: ", paths_.mountinfo);
      return {};
    }
    std::stringstream text;
    text << in.rdbuf();
    std::vector<mount_entry> all = parse_mountinfo(text.str());
    std::vector<mount_entry> kept;
    for (mount_entry& m : all) {
      if (is_listed_mount(m)) kept.push_back(std::move(m));
    }
    return kept;
  }

  linux_paths paths_;
  space_query space_;
};

}  // namespace

std::shared_ptr<storage_source> make_linux_source(linux_paths paths, space_query space) {
  return std::make_shared<linux_source>(std::move(paths), std::move(space));
}

}  // namespace ostrel::storage
