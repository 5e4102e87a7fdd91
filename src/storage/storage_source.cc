#include "storage_source.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
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

struct turn_state {
  std::mutex mutex;
  std::condition_variable released;
  bool busy = false;
};

turn_state& wmi_turn() {
  static auto* t = new turn_state();  // outlives static teardown: a stuck job may still hold the turn
  return *t;
}

// A job's turn, given back when it ends.
class turn {
 public:
  turn() = default;
  turn(const turn&) = delete;
  turn& operator=(const turn&) = delete;
  ~turn() {
    if (!held_) return;
    turn_state& t = wmi_turn();
    {
      std::lock_guard lock(t.mutex);
      t.busy = false;
    }
    t.released.notify_one();
  }
  bool go = true;  // false: stopped while waiting, make no query

 private:
  friend void wait_for_turn(turn& mine, const query_limits& limits);
  bool held_ = false;
};

void wait_for_turn(turn& mine, const query_limits& limits) {
  turn_state& t = wmi_turn();
  auto start = std::chrono::steady_clock::now();
  auto longest = std::chrono::duration_cast<std::chrono::steady_clock::duration>(longest_turn_wait);
  if (limits.deadline) longest = std::min(longest, (*limits.deadline - start) / 2);
  std::unique_lock lock(t.mutex);
  while (t.busy) {
    t.released.wait_for(lock, std::chrono::milliseconds(20));
    if (!t.busy) break;
    if (limits.stop_now()) {
      lock.unlock();
      log::err(std::string("WMI query not made: ") + limits.stop_reason() + " while another query was running");
      mine.go = false;
      return;
    }
    if (std::chrono::steady_clock::now() - start >= longest) {
      lock.unlock();
      log::err("WMI query made alongside another one that has not ended");
      return;
    }
  }
  t.busy = true;
  mine.held_ = true;
}

class wmi_source : public storage_source {
 public:
  wmi_source(std::shared_ptr<com_api> com, std::shared_ptr<volume_api> volumes)
      : com_(std::move(com)), volumes_(std::move(volumes)) {}
  void drives(const query_limits& limits, collector<drive_record>& out) override {
    turn t;
    wait_for_turn(t, limits);
    if (t.go) query_drive_list(*com_, limits, out);
  }
  void disks(const query_limits& limits, collector<disk_record>& out) override {
    turn t;
    wait_for_turn(t, limits);
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
