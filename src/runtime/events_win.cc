#include <windows.h>

#include <system_error>

#include "events.h"

namespace ostrel {

namespace {
[[noreturn]] void throw_last_error(const char* what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}
}  // namespace

auto_reset_event::auto_reset_event(bool initially_set) {
  event_ = CreateEventW(nullptr, FALSE, initially_set ? TRUE : FALSE, nullptr);
  if (!event_) throw_last_error("auto_reset_event: CreateEvent failed");
}

auto_reset_event::~auto_reset_event() {
  CloseHandle(event_);
}

void auto_reset_event::set() {
  if (!SetEvent(event_)) throw_last_error("auto_reset_event: SetEvent failed");
}

void auto_reset_event::wait() {
  if (WaitForSingleObjectEx(event_, INFINITE, FALSE) == WAIT_FAILED) {
    throw_last_error("auto_reset_event: WaitForSingleObjectEx failed");
  }
}

}  // namespace ostrel
