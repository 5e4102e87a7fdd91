// The COM guard: every WMI job holds one for its whole length. It
// initialises COM for the thread (multithreaded apartment) and, while no
// other guard is alive in the process, COM security. Its end uninitialises
// COM unconditionally, also after a failed start; that asymmetry is kept on
// purpose (see docs/storage.md).
#pragma once

#include <cstdint>

#include "wmi_api.h"

namespace ostrel::storage {

class com_guard {
 public:
  explicit com_guard(com_api& api);
  ~com_guard();
  com_guard(const com_guard&) = delete;
  com_guard& operator=(const com_guard&) = delete;

  // The process-wide count of live guards (after a failed security start it
  // is set back to 0, and the guard's end still decrements it).
  static std::int32_t live() noexcept;

 private:
  com_api& api_;
};

}  // namespace ostrel::storage
