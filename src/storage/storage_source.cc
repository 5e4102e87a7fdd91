#include "storage_source.h"

#include <chrono>
#include <mutex>

#include "drive_list.h"
#include "hardware_disks.h"
#include "runtime/log.h"

namespace ostrel::storage {

namespace {

// One WMI job at a time in the process. Wine's WMI provider fills its
// tables unsafely when several threads query at once (five concurrent disk
// lists crash node.exe under Wine); one at a time costs little, since a
// list takes tens of milliseconds. A job waiting its turn gives up when its
// limits stop it.
std::timed_mutex& wmi_turn() {
  static auto* m = new std::timed_mutex();  // outlives static teardown: a stuck job may still hold it
  return *m;
}

std::unique_lock<std::timed_mutex> wait_for_turn(const query_limits& limits) {
  std::unique_lock<std::timed_mutex> turn(wmi_turn(), std::defer_lock);
  while (!turn.try_lock_for(std::chrono::milliseconds(20))) {
    if (limits.stop_now()) {
      log::err(std::string("WMI query not made: ") + limits.stop_reason() + " while another query was running");
      break;
    }
  }
  return turn;
}

class wmi_source : public storage_source {
 public:
  wmi_source(std::shared_ptr<com_api> com, std::shared_ptr<volume_api> volumes)
      : com_(std::move(com)), volumes_(std::move(volumes)) {}
  void drives(const query_limits& limits, collector<drive_record>& out) override {
    auto turn = wait_for_turn(limits);
    if (turn) query_drive_list(*com_, limits, out);
  }
  void disks(const query_limits& limits, collector<disk_record>& out) override {
    auto turn = wait_for_turn(limits);
    if (turn) query_hardware_disks(*com_, *volumes_, limits, out);
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
