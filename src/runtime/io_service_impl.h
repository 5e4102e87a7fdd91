// State shared by the portable and platform halves of io_service.
#pragma once

#include <mutex>
#include <vector>

#include "io_service.h"

namespace ostrel::detail {

class io_timers {
 public:
  virtual ~io_timers() = default;

  std::mutex timer_mutex;
  timer_queue timers;

  // Re-arms the platform timer for timers.earliest(), or disarms it when the
  // queue is empty. Called with timer_mutex held.
  virtual void rearm_timer_locked() noexcept = 0;
};

}  // namespace ostrel::detail
