#include "storage_source.h"

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
// (concurrent disk lists crash node.exe under Wine, inside wbemprox.dll);
// taking turns costs little, since a list takes tens of milliseconds. But a
// query stuck on a dead network drive must not hold every later call: once
// the query holding the turn has run 30 s, or once a job has waited half of
// the time its caller allows, the job queries alongside (real WMI serves
// concurrent queries). A long queue of queries that each end is no reason to
// query alongside: the 30 s count from when the current holder took its
// turn, not from when the waiter came. A job whose limits stop it while it
// waits makes no query.
struct turn_state {
  std::mutex mutex;
  std::condition_variable released;
  bool busy = false;
  std::chrono::steady_clock::time_point held_since;  // when the current holder took the turn
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
  friend void wait_for_turn(turn& mine, const query_limits& limits, std::chrono::milliseconds stuck_after);
  bool held_ = false;
};

void wait_for_turn(turn& mine, const query_limits& limits, std::chrono::milliseconds stuck_after) {
  turn_state& t = wmi_turn();
  auto start = std::chrono::steady_clock::now();
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
    auto now = std::chrono::steady_clock::now();
    bool holder_stuck = now - t.held_since >= stuck_after;
    bool half_my_time = limits.deadline && now - start >= (*limits.deadline - start) / 2;
    if (holder_stuck || half_my_time) {
      lock.unlock();
      log::err("WMI query made alongside another one that has not ended");
      return;
    }
  }
  t.busy = true;
  t.held_since = std::chrono::steady_clock::now();
  mine.held_ = true;
}

class wmi_source : public storage_source {
 public:
  wmi_source(std::shared_ptr<com_api> com, std::shared_ptr<volume_api> volumes, std::chrono::milliseconds stuck_after)
      : com_(std::move(com)), volumes_(std::move(volumes)), stuck_after_(stuck_after) {}
  void drives(const query_limits& limits, collector<drive_record>& out) override {
    turn t;
    wait_for_turn(t, limits, stuck_after_);
    if (t.go) query_drive_list(*com_, limits, out);
  }
  void disks(const query_limits& limits, collector<disk_record>& out) override {
    turn t;
    wait_for_turn(t, limits, stuck_after_);
    if (t.go) query_hardware_disks(*com_, *volumes_, limits, out);
  }

 private:
  std::shared_ptr<com_api> com_;
  std::shared_ptr<volume_api> volumes_;
  std::chrono::milliseconds stuck_after_;
};
}  // namespace

std::shared_ptr<storage_source> make_wmi_source(std::shared_ptr<com_api> com, std::shared_ptr<volume_api> volumes,
                                                std::chrono::milliseconds stuck_after) {
  return std::make_shared<wmi_source>(std::move(com), std::move(volumes), stuck_after);
}

}  // namespace ostrel::storage
