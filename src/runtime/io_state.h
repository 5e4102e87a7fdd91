// The per-operation record the I/O service completes. On Windows it begins
// with an OVERLAPPED-shaped block, so a completion dequeued from the port is
// matched to its operation by address, with no lookup. This header mirrors
// the layout instead of including <windows.h>; io_service_win.cc checks it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ostrel::detail {

struct overlapped_mirror {
  std::uintptr_t internal = 0;
  std::uintptr_t internal_high = 0;
  union {
    struct {
      std::uint32_t offset;
      std::uint32_t offset_high;
    } position;
    void* pointer;
  } u{};
  void* event = nullptr;
};

struct io_state : overlapped_mirror {
  // `error` is the platform error code (0 for success), `bytes` the count
  // transferred. Runs on the thread pumping the service.
  using callback_t = void (*)(io_state* state, std::uint32_t error, std::size_t bytes) noexcept;
  explicit io_state(callback_t cb) noexcept : callback(cb) {}
  void reset_overlapped() noexcept { static_cast<overlapped_mirror&>(*this) = overlapped_mirror{}; }
  callback_t callback;
};

// Error code an operation completes with when it was cancelled.
#ifdef _WIN32
inline constexpr std::uint32_t io_error_cancelled = 995;  // ERROR_OPERATION_ABORTED
#else
inline constexpr std::uint32_t io_error_cancelled = 125;  // ECANCELED
#endif

}  // namespace ostrel::detail
