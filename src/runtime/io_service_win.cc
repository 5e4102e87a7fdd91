// The I/O service on a completion port. Posted resumptions and overlapped
// completions both arrive as OVERLAPPED pointers that are io_state records;
// an empty completion (no OVERLAPPED) wakes a thread to look at the stop
// flag. Timed waits are kept by a dedicated thread waiting on a waitable
// timer and a wake event; expired waits are posted to the port.
#include <winsock2.h>
#include <windows.h>

#include <cstddef>
#include <system_error>
#include <mutex>
#include <thread>

#include "io_service.h"
#include "io_service_impl.h"
#include "log.h"

namespace ostrel {

static_assert(sizeof(detail::overlapped_mirror) == sizeof(OVERLAPPED));
static_assert(offsetof(detail::overlapped_mirror, event) == offsetof(OVERLAPPED, hEvent));
static_assert(offsetof(detail::overlapped_mirror, u) == offsetof(OVERLAPPED, Offset));

namespace {
thread_local const io_service* pumping_service = nullptr;

[[noreturn]] void throw_win32(DWORD code, const char* what) {
  throw std::system_error(static_cast<int>(code), std::system_category(), what);
}

// Posted completions carry their error in the key: the OVERLAPPED block of a
// posted record was never handed to the kernel, so the port's status is
// always success for them.
constexpr ULONG_PTR posted_key_base = 1;
}  // namespace

struct io_service::impl final : detail::io_timers {
  HANDLE port = nullptr;
  HANDLE timer = nullptr;
  HANDLE wake_event = nullptr;
  bool winsock_started = false;
  bool timer_thread_exit = false;  // guarded by timer_mutex
  std::mutex post_mutex;           // orders posts against close()
  std::thread timer_thread;
  io_service* owner = nullptr;

  explicit impl(io_service* o) : owner(o) {
    WSADATA data;
    int rc = WSAStartup(0x0202, &data);
    if (rc != 0) throw_win32(static_cast<DWORD>(rc), "Error initialsing winsock: WSAStartup");
    winsock_started = true;
    port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    if (!port) {
      DWORD code = GetLastError();
      release();
      throw_win32(code, "Error creating io_service: CreateIoCompletionPort");
    }
    wake_event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (!wake_event) {
      DWORD code = GetLastError();
      release();
      throw_win32(code, "Error creating manual reset event: CreateEventW");
    }
    timer = CreateWaitableTimerW(nullptr, FALSE, nullptr);
    if (!timer) {
      DWORD code = GetLastError();
      release();
      throw_win32(code, "Error creating io_service: CreateWaitableTimerW");
    }
    timer_thread = std::thread([this] { run_timer_thread(); });
  }

  ~impl() override {
    {
      std::lock_guard lock(timer_mutex);
      timer_thread_exit = true;
    }
    SetEvent(wake_event);
    if (timer_thread.joinable()) timer_thread.join();
    release();
  }

  void release() noexcept {
    if (timer) CloseHandle(timer);
    if (wake_event) CloseHandle(wake_event);
    if (port) CloseHandle(port);
    if (winsock_started) WSACleanup();
    timer = wake_event = port = nullptr;
    winsock_started = false;
  }

  void rearm_timer_locked() noexcept override {
    if (timers.empty()) {
      CancelWaitableTimer(timer);
      return;
    }
    std::int64_t remaining_ns = timers.earliest() - monotonic_ns();
    // Relative due time in 100 ns units, rounded up so the timer never fires
    // before the deadline; the timer thread checks the clock again anyway.
    LARGE_INTEGER due;
    due.QuadPart = remaining_ns > 0 ? -((remaining_ns + 99) / 100) : -1;
    if (!SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE)) {
      log::err_code("SetWaitableTimer failed, error code: ", GetLastError());
      SetEvent(wake_event);  // let the thread retry rather than lose the wait
    }
  }

  void run_timer_thread() {
    HANDLE handles[2] = {wake_event, timer};
    for (;;) {
      DWORD r = WaitForMultipleObjectsEx(2, handles, FALSE, INFINITE, FALSE);
      if (r == WAIT_FAILED) {
        log::err_code("WaitForMultipleObjectsEx failed, error code: ", GetLastError());
        Sleep(1);
      }
      {
        std::lock_guard lock(timer_mutex);
        if (timer_thread_exit) return;
      }
      owner->fire_due_timers();
    }
  }
};

io_service::io_service() : impl_(std::make_unique<impl>(this)) {
  timers_ = impl_.get();
}

io_service::~io_service() {
  {
    // Stop the timer thread first so no timed wait is posted from now on.
    std::lock_guard lock(impl_->timer_mutex);
    impl_->timer_thread_exit = true;
  }
  SetEvent(impl_->wake_event);
  if (impl_->timer_thread.joinable()) impl_->timer_thread.join();
  destroy_pending_timers();
  // Posted resumptions that nobody will pump now.
  DWORD bytes;
  ULONG_PTR key;
  LPOVERLAPPED ov;
  while (GetQueuedCompletionStatus(impl_->port, &bytes, &key, &ov, 0) || ov) {
    if (ov && key >= posted_key_base) abandon_posted(reinterpret_cast<detail::io_state*>(ov));
  }
}

bool io_service::is_service_thread() const noexcept {
  return pumping_service == this;
}

void io_service::post(detail::io_state* state, std::uint32_t error, std::size_t bytes) {
  std::unique_lock lock(impl_->post_mutex);
  if (closed_.load(std::memory_order_relaxed)) {
    lock.unlock();
    abandon_posted(state);
    return;
  }
  if (!PostQueuedCompletionStatus(impl_->port, static_cast<DWORD>(bytes), posted_key_base + error,
                                  reinterpret_cast<LPOVERLAPPED>(state))) {
    // The port is gone or full; resuming here beats losing the task.
    log::err_code("PostQueuedCompletionStatus failed, error code: ", GetLastError());
    lock.unlock();
    state->callback(state, error, bytes);
  }
}

void io_service::close() noexcept {
  {
    std::lock_guard lock(impl_->post_mutex);
    closed_.store(true, std::memory_order_release);
  }
  DWORD bytes;
  ULONG_PTR key;
  LPOVERLAPPED ov;
  while (GetQueuedCompletionStatus(impl_->port, &bytes, &key, &ov, 0) || ov) {
    if (ov && key >= posted_key_base) abandon_posted(reinterpret_cast<detail::io_state*>(ov));
  }
  destroy_pending_timers();
}

void io_service::stop() noexcept {
  stop_requested_.store(true, std::memory_order_release);
  // Closing the port would not wake a thread blocked in
  // GetQueuedCompletionStatus (seen under Wine too): post an empty completion.
  PostQueuedCompletionStatus(impl_->port, 0, 0, nullptr);
}

std::uint32_t io_service::bind(void* handle) noexcept {
  if (!CreateIoCompletionPort(static_cast<HANDLE>(handle), impl_->port, 0, 0)) return GetLastError();
  return 0;
}

std::uint64_t io_service::process_events() {
  const io_service* outer = pumping_service;
  pumping_service = this;
  std::uint64_t processed = 0;
  while (!is_stop_requested()) {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    LPOVERLAPPED ov = nullptr;
    BOOL ok = GetQueuedCompletionStatus(impl_->port, &bytes, &key, &ov, INFINITE);
    if (!ov) {
      if (!ok) {
        DWORD code = GetLastError();
        pumping_service = outer;
        throw_win32(code, "Error retrieving item from io_service queue: GetQueuedCompletionStatus");
      }
      continue;  // an empty completion: look at the stop flag
    }
    auto* state = reinterpret_cast<detail::io_state*>(ov);
    std::uint32_t error = 0;
    if (key >= posted_key_base) {
      error = static_cast<std::uint32_t>(key - posted_key_base);
      // TRICKY: the post() that queued this holds the lock until it has
      // returned from PostQueuedCompletionStatus. Resumed before it lets go,
      // the task could free the last hold on this service and post() would
      // then release a freed lock: wait for it here.
      std::lock_guard barrier(impl_->post_mutex);
    } else if (!ok) {
      error = GetLastError();
    }
    state->callback(state, error, bytes);
    ++processed;
  }
  // Pass the wake-up on to any other thread inside process_events.
  PostQueuedCompletionStatus(impl_->port, 0, 0, nullptr);
  pumping_service = outer;
  return processed;
}

}  // namespace ostrel
