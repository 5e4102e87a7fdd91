// The drive and disk lists over described machines (WMI rows, volume
// controls): failing steps, the COM guard, the joins, the USB rule, turns.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include "main/version.h"
#include "storage/com_guard.h"
#include "storage/drive_list.h"
#include "storage/hardware_disks.h"
#include "storage/storage_source.h"
#include "telemetry/telemetry_state.h"
#include "../fixtures/storage_wmi_double.h"

namespace ostrel::storage {
namespace {

using v = wmi_value;

fake::row logical(const char* id, wmi_value size, wmi_value free_space, std::int32_t type = 3) {
  return {{"Caption", v::string(id)},
          {"DeviceID", v::string(id)},
          {"Size", size},
          {"FreeSpace", free_space},
          {"DriveType", v::int32(type)},
          {"Description", v::string("Local Fixed Disk")},
          {"FileSystem", v::string("NTFS")},
          {"VolumeSerialNumber", v::string("1234ABCD")}};
}

fake::row physical(int number, const char* interface_type, const char* model) {
  return {{"DeviceID", v::string("\\\\.\\PHYSICALDRIVE" + std::to_string(number))},
          {"Model", v::string(model)},
          {"InterfaceType", v::string(interface_type)},
          {"MediaType", v::string("Fixed hard disk media")}};
}

fake::volume volume_on(std::uint32_t disk, std::optional<bool> seek_penalty, std::optional<bool> trim = {}) {
  return {0, disk, true, seek_penalty, trim};
}

// The list; `log`: what the job wrote.
template <typename Record>
std::vector<Record> list(const std::shared_ptr<fake::machine>& m, std::string* log = nullptr) {
  fake::com com(m);
  fake::volumes volumes(m);
  collector<Record> out;
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  if constexpr (std::is_same_v<Record, drive_record>) {
    query_drive_list(com, {}, out);
  } else {
    query_hardware_disks(com, volumes, {}, out);
  }
  std::string text = ::testing::internal::GetCapturedStdout() + ::testing::internal::GetCapturedStderr();
  if (log) *log = text;
  EXPECT_EQ(m->live_objects, 0);  // every object, the enumerator, services and locator released
  return out.take();
}

TEST(StorageDriveList, RecordsInWmiOrderWithTheirReadings) {
  auto m = std::make_shared<fake::machine>();
  m->logical_disks = {
      logical("C:", v::string("1000"), v::string("400")),
      logical("E:", v::uint64(100), v::uint64(300), -1),                           // free space larger than size
      {{"Caption", v::int32(5)}, {"Size", v::other()}, {"DriveType", v::null()}},  // nothing readable
  };
  std::string log;
  std::vector<drive_record> d = list<drive_record>(m, &log);
  struct expect {
    const char* caption;
    std::uint64_t size, free_space, used;
    std::uint32_t type;
    const char* description;
  };
  const expect e[] = {{"C:", 1000, 400, 600, 3, "Local Fixed Disk"},
                      {"E:", 100, 300, static_cast<std::uint64_t>(100) - 300, 0xFFFFFFFFu, "Local Fixed Disk"},
                      {"unknown", 0, 0, 0, 0, "unknown"}};
  ASSERT_EQ(d.size(), std::size(e));
  for (std::size_t i = 0; i < d.size(); ++i) {
    EXPECT_EQ(std::tie(d[i].caption, d[i].size, d[i].free_space, d[i].used, d[i].drive_type, d[i].description),
              std::tie(e[i].caption, e[i].size, e[i].free_space, e[i].used, e[i].type, e[i].description));
    EXPECT_EQ(d[i].capacity, "");
  }
  // Only the last row has no serial number string.
  EXPECT_EQ(log.find("VolumeSerialNumber is not a string"), log.rfind("VolumeSerialNumber is not a string"));
  EXPECT_NE(log.find("VolumeSerialNumber is not a string"), std::string::npos);
  EXPECT_EQ(m->uninitialize_calls, m->initialize_calls);
}

// Each failing step is logged in its format and ends the list, every COM
// initialisation given back (a failed CoInitializeEx too, by the guard).
TEST(StorageLists, EachFailingStepIsLoggedAndShortensTheList) {
  struct row {
    bool disks;
    const char* step;
    std::uint32_t code;
    const char* line;
    std::size_t rows;
    int uninitialize;
    int unbalanced;
  };
  const row cases[] = {
      {false, "initialize", 0x80010106u, "Failed to initialize COM", 0, 1, 1},
      {false, "locator", 0x80040154u, "CoCreateInstance failed", 0, 2, 0},
      {false, "connect", 0x8004100Eu, "ConnectServer() failure:8004100E", 0, 2, 0},
      {false, "blanket", 0x80070005u, "Could not set proxy blanket. Error code = 0x80070005", 0, 2, 0},
      {false, "Win32_LogicalDisk", 0x80041017u, "ExecQuery() failure:80041017", 0, 2, 0},
      {true, "Win32_LogicalDisk", 0x80041001u, "WMI query failed.", 0, 2, 0},
      {true, "Win32_DiskDrive", 0x80041001u, "ExecQuery() failure:80041001", 1, 2, 0},
      {true, nullptr, 0, "GetHardwareDiskAsync error size exception: size=0", 0, 2, 0},
  };
  for (const row& c : cases) {
    auto m = std::make_shared<fake::machine>();
    m->logical_disks = {logical("C:", v::string("10"), v::string("5"))};
    m->disk_drives = {physical(0, "SCSI", "Disk")};
    m->volumes = {{"C:", volume_on(0, false)}};
    if (c.step) {
      m->fails[c.step] = static_cast<hresult>(c.code);
    } else {
      m->logical_disks.push_back(logical("D:", v::string("?"), v::string("1")));
    }
    std::string log;
    if (c.disks) {
      std::vector<disk_record> d = list<disk_record>(m, &log);
      ASSERT_EQ(d.size(), c.rows) << c.line;
      if (c.rows) {
        EXPECT_EQ(std::tie(d[0].disk_number, d[0].model), std::make_tuple(0, "")) << c.line;
      }
    } else {
      EXPECT_EQ(list<drive_record>(m, &log).size(), c.rows) << c.line;
    }
    EXPECT_NE(log.find(c.line), std::string::npos) << c.line << ": " << log;
    EXPECT_EQ(m->initialize_calls, 2) << c.line;  // the guard's and the query's own
    EXPECT_EQ(m->uninitialize_calls, c.uninitialize) << c.line;
    EXPECT_EQ(m->unbalanced_uninitialize, c.unbalanced) << c.line;
  }
}

// The host set security first: the guard's step fails, the query still has COM.
TEST(StorageDriveList, HostAlreadySetSecurityTheQueryStillHasCom) {
  com_guard::reset_for_tests();
  auto m = std::make_shared<fake::machine>();
  m->security_already_set = true;
  m->logical_disks = {logical("C:", v::string("10"), v::string("5"))};
  std::string log;
  std::vector<drive_record> d = list<drive_record>(m, &log);
  ASSERT_EQ(d.size(), 1u) << log;
  EXPECT_EQ(d[0].caption, "C:");
  EXPECT_NE(log.find("Failed to initialize security. Error code = 0x80010119"), std::string::npos) << log;
  EXPECT_EQ(m->uninitialized_calls, 0);
  EXPECT_EQ(m->uninitialize_calls, 3);
  EXPECT_EQ(m->unbalanced_uninitialize, 1);
  EXPECT_EQ(com_guard::live(), -1);
  list<drive_record>(m);  // with the count below zero no later guard asks again
  EXPECT_EQ(m->security_calls, 1);
}

TEST(StorageDisks, DiskNumberFromTheDeviceIdsEnd) {
  EXPECT_EQ(disk_number_of_device_id("\\\\.\\PHYSICALDRIVE31"), 31);
  EXPECT_EQ(disk_number_of_device_id("\\\\.\\PHYSICALDRIVE"), std::nullopt);
  EXPECT_EQ(disk_number_of_device_id("X99999999999"), std::nullopt);  // too long to be one
}

TEST(StorageDisks, JoinsLogicalAndPhysicalDisks) {
  auto m = std::make_shared<fake::machine>();
  m->logical_disks = {logical("C:", v::string("1000"), v::string("400")), logical("D:", v::uint64(2), v::uint64(1)),
                      logical("E:", v::uint64(3), v::uint64(0)),          logical("F:", v::uint64(3), v::uint64(0)),
                      logical("G:", v::uint64(10), v::uint64(1)),         logical("Z:", v::null(), v::null(), 4),
                      logical("S:", v::uint64(50), v::uint64(5)),         logical("N:", v::uint64(5), v::uint64(5))};
  m->disk_drives = {physical(11, "SCSI", "Eleven"), physical(1, "IDE", "WDC WD40"), physical(0, "SCSI", "Samsung SSD"),
                    physical(2, "SCSI", "Two")};
  m->volumes = {{"C:", volume_on(0, false)},     {"D:", volume_on(1, true)},   {"E:", volume_on(2, {}, true)},
                {"F:", volume_on(2, {}, false)}, {"G:", volume_on(0, {}, {})}, {"S:", volume_on(0, false)},
                {"N:", volume_on(1, true)}};
  m->volumes["S:"].extents_error = fake::error_more_data;  // spanned
  m->volumes["N:"].named = false;
  std::string log;
  std::vector<disk_record> d = list<disk_record>(m, &log);
  struct expect {
    const char* mounted;
    const char* type;
    std::int64_t number;
    const char* model;
  };
  const expect e[] = {
      {"C:", "SSD", 0, "Samsung SSD"}, {"D:", "HDD", 1, "WDC WD40"},        {"E:", "SSD", 2, "Two"},
      {"F:", "HDD", 2, "Two"},         {"G:", "Unknown", 0, "Samsung SSD"}, {"Z:", "Unknown", -1000, ""},
      {"S:", "SSD", -1000, ""},        {"N:", "Unknown", 1, "WDC WD40"}};
  ASSERT_EQ(d.size(), std::size(e));
  for (std::size_t i = 0; i < d.size(); ++i) {
    EXPECT_EQ(d[i].mounted, e[i].mounted);
    EXPECT_EQ(d[i].storage_type, e[i].type) << e[i].mounted;
    EXPECT_EQ(d[i].disk_number, e[i].number) << e[i].mounted;
    EXPECT_EQ(d[i].model, e[i].model) << e[i].mounted;
  }
  // The logical disk's size, not the physical one's.
  EXPECT_EQ(std::make_tuple(d[0].size, d[0].free_space, d[0].file_system, d[0].interface_type, d[0].media_type),
            std::make_tuple(std::uint64_t{1000}, std::uint64_t{400}, "NTFS", "SCSI", "Fixed hard disk media"));
  EXPECT_EQ(d[5].interface_type + d[5].media_type, "");
  EXPECT_EQ(d[5].drive_type, 4u);
  for (const char* line :
       {"Error opening volume: 2", "DeviceIoControl failed: 234",
        "Failed to get GetDiskNumberFromMountedDrive by DeviceID", "Could not get the volume name of N:: 2",
        "Storage property queries failed for G:: seek penalty 50, trim 50"}) {
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
  }
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
      {3, "USB", "Stick", true, "HDD"},
      {3, "SCSI", "Cruzer USB Device", {}, "USB"},
      {3, "SCSI", "Cruzer usb Device", {}, "Unknown"},
      {3, "SCSI", "Cruzer USB Device", true, "HDD"},
  };
  for (const row& c : cases) {
    auto m = std::make_shared<fake::machine>();
    m->logical_disks = {logical("E:", v::string("10"), v::string("1"), c.drive_type)};
    m->disk_drives = {physical(4, c.interface_type, c.model)};
    m->volumes = {{"E:", volume_on(4, c.seek_penalty)}};
    std::vector<disk_record> d = list<disk_record>(m);
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].storage_type, c.expected) << c.drive_type << " '" << c.interface_type << "' " << c.model;
  }
}

// More than 30 disks: one module event per process.
TEST(StorageDisks, BigListStatisticOncePerProcess) {
  EXPECT_FALSE(report_big_disk_list(30));
  auto m = std::make_shared<fake::machine>();
  for (int i = 0; i < 31; ++i) m->logical_disks.push_back(logical("C:", v::string("10"), v::string("1")));
  m->volumes = {{"C:", volume_on(0, false)}};
  telemetry::global().events.take_all();
  EXPECT_EQ(list<disk_record>(m).size(), 31u);
  auto batch = telemetry::global().events.take_all();
  ASSERT_EQ(batch.size(), 1u);
  const telemetry::TvkRecord& r = batch[0];
  EXPECT_EQ(std::tie(r.category, r.msg, r.wl_avgv[0], r.w_succ, r.c[0]),
            std::make_tuple(194, std::optional<std::string>{}, 31, 1.0, version_text));
  EXPECT_EQ(r.extra, (std::map<std::string, std::string>{{"c20", "ostrel:hardwaredisk:biglist"}}));
  EXPECT_FALSE(report_big_disk_list(500));  // the list above recorded it
}

// A job waits at most half of its time limit for a stuck one, then queries
// alongside; one whose limit runs out while it waits makes no query.
TEST(StorageTurns, ALaterJobDoesNotWaitOutAStuckOne) {
  auto slow = std::make_shared<fake::machine>();
  slow->next_delay_ms = 300;
  slow->logical_disks.assign(3, logical("C:", v::string("1"), v::string("1")));
  auto quick = std::make_shared<fake::machine>();
  quick->logical_disks = {logical("Q:", v::string("1"), v::string("1"))};
  auto slow_source = make_wmi_source(std::make_shared<fake::com>(slow), std::make_shared<fake::volumes>(slow));
  auto quick_source = make_wmi_source(std::make_shared<fake::com>(quick), std::make_shared<fake::volumes>(quick));

  collector<drive_record> stuck;
  std::thread first([&] { slow_source->drives({}, stuck); });
  while (slow->queries.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));

  ::testing::internal::CaptureStderr();
  query_limits limits;
  limits.deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(400);
  collector<drive_record> alongside;
  quick_source->drives(limits, alongside);
  EXPECT_EQ(alongside.take().size(), 1u);

  query_limits none_left;
  none_left.deadline = std::chrono::steady_clock::now();
  collector<drive_record> nothing;
  quick_source->drives(none_left, nothing);
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_TRUE(nothing.take().empty());
  EXPECT_EQ(quick->queries.load(), 1);  // the second quick job made no query
  EXPECT_NE(err.find("WMI query made alongside another one that has not ended"), std::string::npos) << err;
  EXPECT_NE(err.find("WMI query not made: the time limit ran out while another query was running"), std::string::npos)
      << err;
  first.join();
  EXPECT_EQ(stuck.take().size(), 3u);
}

// A queue of queries that each end holds no stuck query: the last of ten
// jobs waits far longer than `stuck_after`, yet none queries alongside
// (Wine's WMI crashes on concurrent queries).
TEST(StorageTurns, AQueueOfQueriesThatEndTakesTurns) {
  auto m = std::make_shared<fake::machine>();
  m->next_delay_ms = 60;
  m->logical_disks = {logical("C:", v::string("1"), v::string("1"))};
  auto source = make_wmi_source(std::make_shared<fake::com>(m), std::make_shared<fake::volumes>(m),
                                std::chrono::milliseconds(500));
  ::testing::internal::CaptureStderr();
  std::atomic<std::size_t> listed{0};
  std::vector<std::thread> jobs;
  for (int i = 0; i < 10; ++i) {
    jobs.emplace_back([&] {
      collector<drive_record> out;
      source->drives({}, out);
      listed += out.take().size();
    });
  }
  for (auto& j : jobs) j.join();
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(listed.load(), 10u);
  EXPECT_EQ(err.find("alongside"), std::string::npos) << err;
}

}  // namespace
}  // namespace ostrel::storage
