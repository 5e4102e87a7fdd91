#include "events.h"

namespace ostrel {

async_auto_reset_event::~async_auto_reset_event() {
  // Tasks still waiting can never be released: free them whole.
  for (auto& w : waiters_) w.destroy();
}

bool async_auto_reset_event::enqueue(resumable h) {
  std::lock_guard lock(mutex_);
  if (set_) {
    set_ = false;
    return false;
  }
  waiters_.push_back(h);
  return true;
}

void async_auto_reset_event::set() {
  resumable next;
  {
    std::lock_guard lock(mutex_);
    if (waiters_.empty()) {
      set_ = true;
      return;
    }
    next = waiters_.front();
    waiters_.pop_front();
  }
  next.resume();
}

void async_auto_reset_event::reset() noexcept {
  std::lock_guard lock(mutex_);
  set_ = false;
}

bool async_auto_reset_event::is_set() const noexcept {
  std::lock_guard lock(mutex_);
  return set_;
}

}  // namespace ostrel
