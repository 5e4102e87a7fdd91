#include "api_compat.h"

namespace ostrel::scan::api_compat {

// statx is a plain system call; nothing is bound at run time.
void init() {}
void release() {}
bool is_bound() noexcept {
  return true;
}

}  // namespace ostrel::scan::api_compat
