// The drive and disk lists over described machines: the WMI steps and their
// failures, the row readers, the disk number and storage type lookups, the
// USB rules and the join of logical and physical disks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "storage/com_guard.h"
#include "storage/drive_list.h"
#include "storage/hardware_disks.h"
#include "storage/storage_source.h"
#include "storage_fake.h"

namespace ostrel::storage {
namespace {

using v = wmi_value;

fake::row logical(const char* id, wmi_value size, wmi_value free_space, std::int32_t type,
                  const char* description = "Local Fixed Disk") {
  return {{"Caption", v::string(id)},
          {"DeviceID", v::string(id)},
          {"Size", size},
          {"FreeSpace", free_space},
          {"DriveType", v::int32(type)},
          {"Description", v::string(description)},
          {"VolumeSerialNumber", v::string("1234ABCD")},
          {"FileSystem", v::string("NTFS")}};
}

fake::row physical(int number, const char* interface_type, const char* model) {
  return {{"DeviceID", v::string("\\\\.\\PHYSICALDRIVE" + std::to_string(number))},
          {"Model", v::string(model)},
          {"Size", v::uint64(1000)},
          {"Status", v::string("OK")},
          {"SerialNumber", v::string("S1")},
          {"InterfaceType", v::string(interface_type)},
          {"MediaType", v::string("Fixed hard disk media")}};
}

fake::volume volume_on(std::uint32_t disk, std::optional<bool> seek_penalty, std::optional<bool> trim = {}) {
  static std::atomic<int> next_volume{0};
  fake::volume vol;
  vol.disk_number = disk;
  vol.volume_name = "\\\\?\\Volume{" + std::to_string(++next_volume) + "}\\";
  vol.seek_penalty = seek_penalty;
  vol.trim_enabled = trim;
  return vol;
}

std::vector<drive_record> drives_of(const std::shared_ptr<fake::machine>& m, query_limits limits = {}) {
  fake::com com(m);
  collector<drive_record> out;
  query_drive_list(com, limits, out);
  return out.take();
}

std::vector<disk_record> disks_of(const std::shared_ptr<fake::machine>& m, query_limits limits = {}) {
  fake::com com(m);
  fake::volumes volumes(m);
  collector<disk_record> out;
  query_hardware_disks(com, volumes, limits, out);
  return out.take();
}

TEST(StorageDriveList, RecordsInWmiOrderWithTheirReadings) {
  auto m = std::make_shared<fake::machine>();
  m->logical_disks = {
      logical("C:", v::string("1000"), v::string("400"), 3),
      logical("D:", v::null(), v::null(), 2, "Removable Disk"),  // a card reader without media
      logical("E:", v::uint64(100), v::uint64(300), 3),          // free space larger than size
      {{"Caption", v::int32(5)}, {"DriveType", v::null()}},      // nothing readable
  };
  testing::internal::CaptureStderr();
  std::vector<drive_record> d = drives_of(m);
  std::string err = testing::internal::GetCapturedStderr();
  ASSERT_EQ(d.size(), 4u);
  EXPECT_EQ(d[0].caption, "C:");
  EXPECT_EQ(d[0].size, 1000u);
  EXPECT_EQ(d[0].free_space, 400u);
  EXPECT_EQ(d[0].used, 600u);
  EXPECT_EQ(d[0].description, "Local Fixed Disk");
  EXPECT_EQ(d[0].capacity, "");
  EXPECT_EQ(d[0].drive_type, 3u);
  EXPECT_EQ(d[1].size, 0u);
  EXPECT_EQ(d[1].used, 0u);
  EXPECT_EQ(d[1].drive_type, 2u);
  EXPECT_EQ(d[2].used, static_cast<std::uint64_t>(100) - 300u);  // wrapped
  EXPECT_EQ(d[3].caption, "unknown");
  EXPECT_EQ(d[3].description, "unknown");
  EXPECT_EQ(d[3].drive_type, 0u);
  // Only the last row has no serial number string.
  EXPECT_EQ(err.find("VolumeSerialNumber is not a string"), err.rfind("VolumeSerialNumber is not a string"));
  EXPECT_NE(err.find("VolumeSerialNumber is not a string"), std::string::npos);
  EXPECT_EQ(m->live_objects, 0);  // every object, the enumerator, services and locator released
  EXPECT_EQ(m->uninitialize_calls, m->initialize_calls);
}

TEST(StorageDriveList, ASizeThatDoesNotConvertThrowsAndKeepsTheRowsBefore) {
  auto m = std::make_shared<fake::machine>();
  m->logical_disks = {logical("C:", v::string("10"), v::string("5"), 3),
                      logical("D:", v::string("lots"), v::string("5"), 3),
                      logical("E:", v::string("10"), v::string("5"), 3)};
  fake::com com(m);
  collector<drive_record> out;
  try {
    query_drive_list(com, {}, out);
    ADD_FAILURE() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "invalid stoull argument");
  }
  EXPECT_EQ(out.take().size(), 1u);
  EXPECT_EQ(m->live_objects, 0);
  EXPECT_EQ(m->uninitialize_calls, m->initialize_calls);
}

TEST(StorageDriveList, EachFailingStepIsLoggedAndGivesNoRows) {
  struct row {
    const char* what;
    void (*set)(fake::machine&);
    const char* line;
  };
  const row cases[] = {
      {"locator", [](fake::machine& m) { m.create_locator = static_cast<hresult>(0x80040154u); },
       "CoCreateInstance failed"},
      {"connect", [](fake::machine& m) { m.connect = static_cast<hresult>(0x8004100Eu); },
       "ConnectServer() failure:8004100E"},
      {"blanket", [](fake::machine& m) { m.proxy_blanket = static_cast<hresult>(0x80070005u); },
       "Could not set proxy blanket. Error code = 0x80070005"},
      {"query", [](fake::machine& m) { m.query_errors["Win32_LogicalDisk"] = static_cast<hresult>(0x80041017u); },
       "ExecQuery() failure:80041017"},
  };
  for (const row& c : cases) {
    auto m = std::make_shared<fake::machine>();
    m->logical_disks = {logical("C:", v::string("10"), v::string("5"), 3)};
    c.set(*m);
    testing::internal::CaptureStderr();
    std::vector<drive_record> d = drives_of(m);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(d.empty()) << c.what;
    EXPECT_NE(err.find(c.line), std::string::npos) << c.what << ": " << err;
    EXPECT_EQ(m->live_objects, 0) << c.what;
    // The guard and the query's own apartment, each given back.
    EXPECT_EQ(m->initialize_calls, 2) << c.what;
    EXPECT_EQ(m->uninitialize_calls, 2) << c.what;
    EXPECT_EQ(m->unbalanced_uninitialize, 0) << c.what;
  }
}

TEST(StorageDriveList, HostAlreadySetSecurityTheQueryStillHasCom) {
  com_guard::reset_for_tests();  // a fresh process: this guard asks for security
  auto m = std::make_shared<fake::machine>();
  m->security_already_set = true;
  m->logical_disks = {logical("C:", v::string("10"), v::string("5"), 3)};
  testing::internal::CaptureStderr();
  std::vector<drive_record> d = drives_of(m);
  std::string err = testing::internal::GetCapturedStderr();
  ASSERT_EQ(d.size(), 1u) << err;
  EXPECT_EQ(d[0].caption, "C:");
  EXPECT_NE(err.find("Failed to initialize security. Error code = 0x80010119"), std::string::npos) << err;
  EXPECT_EQ(m->uninitialized_calls, 0);
  EXPECT_EQ(m->initialize_calls, 2);
  EXPECT_EQ(m->uninitialize_calls, 3);
  EXPECT_EQ(m->unbalanced_uninitialize, 1);
  EXPECT_EQ(com_guard::live(), -1);
}

TEST(StorageDriveList, ATimeLimitEndsTheWalkWithTheRowsReadSoFar) {
  auto m = std::make_shared<fake::machine>();
  for (int i = 0; i < 20; ++i) m->logical_disks.push_back(logical("C:", v::string("10"), v::string("5"), 3));
  m->next_delay_ms = 40;
  query_limits limits;
  limits.deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(150);
  testing::internal::CaptureStderr();
  auto start = std::chrono::steady_clock::now();
  std::vector<drive_record> d = drives_of(m, limits);
  auto took = std::chrono::steady_clock::now() - start;
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_GE(d.size(), 1u);
  EXPECT_LT(d.size(), 20u);
  EXPECT_LT(took, std::chrono::seconds(2));
  EXPECT_NE(err.find("WMI enumeration stopped (the time limit ran out)"), std::string::npos);
  EXPECT_EQ(m->live_objects, 0);
}

TEST(StorageDisks, DiskNumberFromTheDeviceIdsEnd) {
  EXPECT_EQ(disk_number_of_device_id("\\\\.\\PHYSICALDRIVE0"), 0);
  EXPECT_EQ(disk_number_of_device_id("\\\\.\\PHYSICALDRIVE31"), 31);
  EXPECT_EQ(disk_number_of_device_id("\\\\.\\PHYSICALDRIVE"), std::nullopt);
  EXPECT_EQ(disk_number_of_device_id(""), std::nullopt);
  EXPECT_EQ(disk_number_of_device_id("X99999999999"), std::nullopt);
}

TEST(StorageDisks, JoinsLogicalAndPhysicalDisks) {
  auto m = std::make_shared<fake::machine>();
  m->logical_disks = {
      logical("C:", v::string("1000"), v::string("400"), 3),  // SSD by seek penalty
      logical("D:", v::string("2000"), v::string("100"), 3),  // HDD by seek penalty
      logical("E:", v::string("3000"), v::string("0"), 3),    // SSD by trim
      logical("F:", v::string("3000"), v::string("0"), 3),    // HDD by trim disabled
      logical("G:", v::string("10"), v::string("1"), 3),      // neither query answers
      logical("Z:", v::null(), v::null(), 4),                 // network drive
      logical("S:", v::string("50"), v::string("5"), 3),      // spanned volume
  };
  m->disk_drives = {physical(11, "SCSI", "Eleven"), physical(1, "IDE", "WDC WD40"), physical(0, "SCSI", "Samsung SSD"),
                    physical(2, "SCSI", "Two")};
  m->volumes = {{"C:", volume_on(0, false)},     {"D:", volume_on(1, true)},   {"E:", volume_on(2, {}, true)},
                {"F:", volume_on(2, {}, false)}, {"G:", volume_on(0, {}, {})}, {"S:", volume_on(0, false)}};
  m->volumes["S:"].extents_error = fake::error_more_data;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::vector<disk_record> d = disks_of(m);
  std::string out = testing::internal::GetCapturedStdout();
  std::string err = testing::internal::GetCapturedStderr();
  ASSERT_EQ(d.size(), 7u);
  struct expect {
    const char* mounted;
    const char* type;
    std::int64_t number;
    const char* model;
  };
  const expect e[] = {
      {"C:", "SSD", 0, "Samsung SSD"}, {"D:", "HDD", 1, "WDC WD40"},        {"E:", "SSD", 2, "Two"},
      {"F:", "HDD", 2, "Two"},         {"G:", "Unknown", 0, "Samsung SSD"}, {"Z:", "Unknown", -1000, ""},
      {"S:", "SSD", -1000, ""}};
  for (std::size_t i = 0; i < 7; ++i) {
    EXPECT_EQ(d[i].mounted, e[i].mounted);
    EXPECT_EQ(d[i].storage_type, e[i].type) << e[i].mounted;
    EXPECT_EQ(d[i].disk_number, e[i].number) << e[i].mounted;
    EXPECT_EQ(d[i].model, e[i].model) << e[i].mounted;
  }
  EXPECT_EQ(d[0].size, 1000u);  // the logical disk's size, not the physical one's
  EXPECT_EQ(d[0].free_space, 400u);
  EXPECT_EQ(d[0].file_system, "NTFS");
  EXPECT_EQ(d[0].interface_type, "SCSI");
  EXPECT_EQ(d[0].media_type, "Fixed hard disk media");
  EXPECT_EQ(d[5].interface_type, "");
  EXPECT_EQ(d[5].media_type, "");
  EXPECT_EQ(d[5].drive_type, 4u);
  EXPECT_NE(out.find("Error opening volume: 2"), std::string::npos) << out;
  EXPECT_NE(out.find("DeviceIoControl failed: 234"), std::string::npos) << out;
  EXPECT_NE(err.find("Failed to get GetDiskNumberFromMountedDrive by DeviceID"), std::string::npos);
  EXPECT_EQ(m->live_objects, 0);
}

TEST(StorageDisks, UsbRuleTakesExactlyTwoSpellingsOnARemovableDrive) {
  struct row {
    std::int32_t drive_type;
    const char* interface_type;
    const char* model;
    std::optional<bool> seek_penalty;
    const char* expected;
  };
  const row cases[] = {
      {2, "USB", "Stick", false, "USB"},
      {2, "usb", "Stick", false, "USB"},
      {2, "Usb", "Stick", false, "SSD"},
      {2, "uSB", "Stick", true, "HDD"},
      {2, "USB ", "Stick", false, "SSD"},
      {3, "USB", "Stick", true, "HDD"},
      {2, "SCSI", "Stick", false, "SSD"},
      {3, "SCSI", "Cruzer USB Device", {}, "USB"},
      {3, "SCSI", "Cruzer usb Device", {}, "Unknown"},
      {3, "SCSI", "Cruzer USB Device", true, "HDD"},
  };
  for (const row& c : cases) {
    auto m = std::make_shared<fake::machine>();
    m->logical_disks = {logical("E:", v::string("10"), v::string("1"), c.drive_type)};
    m->disk_drives = {physical(4, c.interface_type, c.model)};
    m->volumes = {{"E:", volume_on(4, c.seek_penalty)}};
    testing::internal::CaptureStdout();
    std::vector<disk_record> d = disks_of(m);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].storage_type, c.expected) << c.drive_type << " '" << c.interface_type << "' " << c.model;
  }
}

TEST(StorageDisks, AFailingQueryLogsAndGivesNoRows) {
  auto m = std::make_shared<fake::machine>();
  m->logical_disks = {logical("C:", v::string("10"), v::string("1"), 3)};
  m->disk_drives = {physical(0, "SCSI", "Disk")};
  m->volumes = {{"C:", volume_on(0, false)}};
  m->query_errors["Win32_DiskDrive"] = fake::wbem_e_failed;
  testing::internal::CaptureStderr();
  std::vector<disk_record> d = disks_of(m);
  std::string err = testing::internal::GetCapturedStderr();
  ASSERT_EQ(d.size(), 1u);  // the logical disk, without a physical one
  EXPECT_EQ(d[0].disk_number, 0);
  EXPECT_EQ(d[0].model, "");
  EXPECT_NE(err.find("WMI query failed."), std::string::npos);
  EXPECT_NE(err.find("ExecQuery() failure:80041001"), std::string::npos);

  m->query_errors = {{"Win32_LogicalDisk", fake::wbem_e_failed}};
  testing::internal::CaptureStderr();
  d = disks_of(m);
  err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(d.empty());
  EXPECT_NE(err.find("WMI query failed."), std::string::npos);
  EXPECT_EQ(m->live_objects, 0);
  EXPECT_EQ(m->uninitialize_calls, m->initialize_calls);
}

TEST(StorageDisks, AnExceptionIsLoggedWithTheListSize) {
  auto m = std::make_shared<fake::machine>();
  m->logical_disks = {logical("C:", v::string("10"), v::string("1"), 3),
                      logical("D:", v::string("?"), v::string("1"), 3)};
  testing::internal::CaptureStderr();
  std::vector<disk_record> d = disks_of(m);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(d.empty());
  EXPECT_NE(err.find("GetHardwareDiskAsync error size exception: size=0"), std::string::npos) << err;
  EXPECT_EQ(m->live_objects, 0);
}

TEST(StorageDisks, BigListStatisticOncePerProcess) {
  EXPECT_FALSE(report_big_disk_list(30));
  auto m = std::make_shared<fake::machine>();
  for (int i = 0; i < 31; ++i) m->logical_disks.push_back(logical("C:", v::string("10"), v::string("1"), 3));
  m->volumes = {{"C:", volume_on(0, false)}};
  EXPECT_EQ(disks_of(m).size(), 31u);
  EXPECT_FALSE(report_big_disk_list(31));  // the list above already recorded it
  EXPECT_FALSE(report_big_disk_list(500));
}

// WMI jobs take turns; a job waits at most half of its time limit for a
// query stuck elsewhere, then queries alongside; one whose limit runs out
// while it waits makes no query.
TEST(StorageTurns, ALaterJobDoesNotWaitOutAStuckOne) {
  auto slow = std::make_shared<fake::machine>();
  slow->next_delay_ms = 300;
  slow->logical_disks = {logical("C:", v::string("1"), v::string("1"), 3),
                         logical("D:", v::string("1"), v::string("1"), 3),
                         logical("E:", v::string("1"), v::string("1"), 3)};
  auto quick = std::make_shared<fake::machine>();
  quick->logical_disks = {logical("Q:", v::string("1"), v::string("1"), 3)};
  auto slow_source = make_wmi_source(std::make_shared<fake::com>(slow), std::make_shared<fake::volumes>(slow));
  auto quick_source = make_wmi_source(std::make_shared<fake::com>(quick), std::make_shared<fake::volumes>(quick));

  collector<drive_record> stuck;
  std::thread first([&] { slow_source->drives({}, stuck); });
  while (slow->queries.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));

  testing::internal::CaptureStderr();
  query_limits limits;
  limits.deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(400);
  collector<drive_record> alongside;
  quick_source->drives(limits, alongside);
  EXPECT_EQ(alongside.take().size(), 1u);

  query_limits none_left;
  none_left.deadline = std::chrono::steady_clock::now();
  collector<drive_record> nothing;
  quick_source->drives(none_left, nothing);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(nothing.take().empty());
  EXPECT_EQ(quick->queries.load(), 1);  // the second quick job made no query
  EXPECT_NE(err.find("WMI query made alongside another one that has not ended"), std::string::npos) << err;
  EXPECT_NE(err.find("WMI query not made: the time limit ran out while another query was running"), std::string::npos)
      << err;
  first.join();
  EXPECT_EQ(stuck.take().size(), 3u);
}

}  // namespace
}  // namespace ostrel::storage
