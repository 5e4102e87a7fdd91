#include <sys/syscall.h>
#include <unistd.h>

#include "thread_id.h"

namespace ostrel {
std::uint64_t current_thread_id() noexcept {
  return static_cast<std::uint64_t>(::syscall(SYS_gettid));
}
}  // namespace ostrel
