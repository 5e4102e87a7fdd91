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
  // Tests only: sets the count back to 0, as in a fresh process (the kept
  // asymmetry leaves it at -1 for good after a failed security start).
  static void reset_for_tests() noexcept;

 private:
  com_api& api_;
};

// COM for the calling thread, for the length of a query: CoInitializeEx
// (multithreaded) now, CoUninitialize at the end when it succeeded. The
// guard above may leave the thread without COM (its security step
// uninitialises when the host has already set security); the query needs
// COM on its own thread either way.
class com_apartment {
 public:
  explicit com_apartment(com_api& api);
  ~com_apartment();
  com_apartment(const com_apartment&) = delete;
  com_apartment& operator=(const com_apartment&) = delete;

 private:
  com_api& api_;
  bool initialized_ = false;
};

}  // namespace ostrel::storage
