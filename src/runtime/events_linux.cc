#include "events.h"

namespace ostrel {

auto_reset_event::auto_reset_event(bool initially_set) : set_(initially_set) {}
auto_reset_event::~auto_reset_event() = default;

void auto_reset_event::set() {
  std::lock_guard lock(mutex_);
  set_ = true;
  cv_.notify_one();
}

void auto_reset_event::wait() {
  std::unique_lock lock(mutex_);
  cv_.wait(lock, [this] { return set_; });
  set_ = false;
}

}  // namespace ostrel
