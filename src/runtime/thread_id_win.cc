#include <windows.h>

#include "thread_id.h"

namespace ostrel {
std::uint64_t current_thread_id() noexcept {
  return GetCurrentThreadId();
}
}  // namespace ostrel
