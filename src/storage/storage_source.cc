#include "storage_source.h"

#include <algorithm>
#include <chrono>
#include <mutex>

#include "drive_list.h"
#include "hardware_disks.h"
#include "runtime/log.h"

namespace ostrel::storage {

namespace {

// One WMI job at a time in the process, as far as that costs little. Wine's
// WMI provider fills its tables unsafely when several threads query at once
// (five concurrent disk lists crash node.exe under Wine); taking turns costs
// little, since a list takes tens of milliseconds. But a query stuck on a
// dead network drive must not hold every later call: a job waits for its
// turn at most 30 s, or half of the time its caller allows, then queries
// alongside (real WMI serves concurrent queries). A job whose limits stop
// it while it waits makes no query.
constexpr std::chrono::milliseconds longest_turn_wait{30000};

std::timed_mutex& wmi_turn() {
  static auto* m = new std::timed_mutex();  // outlives static teardown: a stuck job may still hold it
  return *m;
}

struct turn {
  std::unique_lock<std::timed_mutex> lock;
  bool go = true;  // false: stopped while waiting, make no query
};

turn wait_for_turn(const query_limits& limits) {
  turn t{std::unique_lock<std::timed_mutex>(wmi_turn(), std::defer_lock)};
  auto start = std::chrono::steady_clock::now();
  auto longest = std::chrono::duration_cast<std::chrono::steady_clock::duration>(longest_turn_wait);
  if (limits.deadline) longest = std::min(longest, (*limits.deadline - start) / 2);
  while (!t.lock.try_lock_for(std::chrono::milliseconds(20))) {
    if (limits.stop_now()) {
      log::err(std::string("WMI query not made: ") + limits.stop_reason() + " while another query was running");
      t.go = false;
      break;
    }
    if (std::chrono::steady_clock::now() - start >= longest) {
      log::err("WMI query made alongside another one that has not ended");
      break;
    }
  }
  return t;
}

class wmi_source : public storage_source {
 public:
  wmi_source(std::shared_ptr<com_api> com, std::shared_ptr<volume_api> volumes)
      : com_(std::move(com)), volumes_(std::move(volumes)) {}
  void drives(const query_limits& limits, collector<drive_record>& out) override {
    turn t = wait_for_turn(limits);
    if (t.go) query_drive_list(*com_, limits, out);
  }
  void disks(const query_limits& limits, collector<disk_record>& out) override {
    turn t = wait_for_turn(limits);
    if (t.go) query_hardware_disks(*com_, *volumes_, limits, out);
  }

 private:
  std::shared_ptr<com_api> com_;
  std::shared_ptr<volume_api> volumes_;
};
}  // namespace

std::shared_ptr<storage_source> make_wmi_source(std::shared_ptr<com_api> com, std::shared_ptr<volume_api> volumes) {
  return std::make_shared<wmi_source>(std::move(com), std::move(volumes));
}

}  // namespace ostrel::storage
