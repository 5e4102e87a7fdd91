// The I/O service on epoll: an eventfd carries posted completions and stop,
// a timerfd armed at the earliest deadline (absolute, CLOCK_MONOTONIC, the
// clock of std::chrono::steady_clock) carries timed waits, and readiness
// waits on file descriptors are one-shot epoll registrations.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <system_error>
#include <unordered_map>

#include "io_service.h"
#include "io_service_impl.h"
#include "log.h"

namespace ostrel {

namespace {
thread_local const io_service* pumping_service = nullptr;

struct posted_item {
  detail::io_state* state;
  std::uint32_t error;
  std::size_t bytes;
};

char wake_marker;
char timer_marker;

[[noreturn]] void throw_errno(const char* what) {
  throw std::system_error(errno, std::system_category(), what);
}
}  // namespace

struct io_service::impl final : detail::io_timers {
  int epoll_fd = -1;
  int event_fd = -1;
  int timer_fd = -1;

  std::mutex post_mutex;
  std::deque<posted_item> posted;

  std::mutex fd_mutex;
  std::unordered_map<detail::io_state*, int> fd_waits;

  impl() {
    epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (epoll_fd < 0) throw_errno("Error creating io_service: epoll_create1");
    event_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    timer_fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (event_fd < 0 || timer_fd < 0) {
      int saved = errno;
      close_all();
      throw std::system_error(saved, std::system_category(), "Error creating io_service: eventfd");
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = &wake_marker;
    epoll_ctl(epoll_fd, EPOLL_CTL_ADD, event_fd, &ev);
    ev.data.ptr = &timer_marker;
    epoll_ctl(epoll_fd, EPOLL_CTL_ADD, timer_fd, &ev);
  }
  ~impl() override { close_all(); }

  void close_all() noexcept {
    for (int fd : {epoll_fd, event_fd, timer_fd})
      if (fd >= 0) ::close(fd);
  }

  void wake() noexcept {
    std::uint64_t one = 1;
    // A full counter (EAGAIN) still leaves the eventfd readable: nothing lost.
    [[maybe_unused]] auto n = ::write(event_fd, &one, sizeof one);
  }

  void rearm_timer_locked() noexcept override {
    itimerspec spec{};
    if (!timers.empty()) {
      std::int64_t deadline = timers.earliest();
      if (deadline <= 0) deadline = 1;  // zero would disarm
      spec.it_value.tv_sec = deadline / 1000000000;
      spec.it_value.tv_nsec = deadline % 1000000000;
    }
    if (timerfd_settime(timer_fd, TFD_TIMER_ABSTIME, &spec, nullptr) != 0) {
      log::err_code("timerfd_settime failed, error code: ", errno);
    }
  }
};

io_service::io_service() : impl_(std::make_unique<impl>()) {
  timers_ = impl_.get();
}

io_service::~io_service() {
  destroy_pending_timers();
  // Posted resumptions of schedule() and timed waits that nobody will pump.
  std::deque<posted_item> left;
  {
    std::lock_guard lock(impl_->post_mutex);
    left.swap(impl_->posted);
  }
  for (auto& item : left) abandon_posted(item.state);
}

bool io_service::is_service_thread() const noexcept {
  return pumping_service == this;
}

void io_service::post(detail::io_state* state, std::uint32_t error, std::size_t bytes) {
  {
    std::lock_guard lock(impl_->post_mutex);
    if (!closed_.load(std::memory_order_relaxed)) {
      impl_->posted.push_back({state, error, bytes});
      // TRICKY: woken under the lock. Once it is released the service thread
      // (or close()) may resume or free the posted task, and with its frame
      // the last hold on this service: nothing here may be touched after.
      impl_->wake();
      return;
    }
  }
  abandon_posted(state);
}

void io_service::close() noexcept {
  std::deque<posted_item> left;
  {
    std::lock_guard lock(impl_->post_mutex);
    closed_.store(true, std::memory_order_release);
    left.swap(impl_->posted);
  }
  for (auto& item : left) abandon_posted(item.state);
  destroy_pending_timers();
}

void io_service::stop() noexcept {
  stop_requested_.store(true, std::memory_order_release);
  impl_->wake();
}

std::uint32_t io_service::start_fd_wait(detail::io_state* state, int fd) noexcept {
  std::lock_guard lock(impl_->fd_mutex);
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLONESHOT;
  ev.data.ptr = state;
  if (epoll_ctl(impl_->epoll_fd, EPOLL_CTL_ADD, fd, &ev) != 0) {
    if (errno != EEXIST || epoll_ctl(impl_->epoll_fd, EPOLL_CTL_MOD, fd, &ev) != 0) return errno;
  }
  impl_->fd_waits[state] = fd;
  return 0;
}

void io_service::cancel_fd_wait(detail::io_state* state) noexcept {
  {
    std::lock_guard lock(impl_->fd_mutex);
    auto it = impl_->fd_waits.find(state);
    // TRICKY: a wait that already completed (or is completing on the service
    // thread) is no longer in the map; only one of the two paths completes it.
    if (it == impl_->fd_waits.end()) return;
    epoll_ctl(impl_->epoll_fd, EPOLL_CTL_DEL, it->second, nullptr);
    impl_->fd_waits.erase(it);
  }
  post(state, detail::io_error_cancelled, 0);
}

std::uint64_t io_service::process_events() {
  const io_service* outer = pumping_service;
  pumping_service = this;
  std::uint64_t processed = 0;
  epoll_event events[64];
  while (!is_stop_requested()) {
    int n = epoll_wait(impl_->epoll_fd, events, 64, -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      pumping_service = outer;
      throw_errno("Error retrieving item from io_service queue: epoll_wait");
    }
    for (int i = 0; i < n; ++i) {
      void* tag = events[i].data.ptr;
      if (tag == &wake_marker) {
        std::uint64_t count;
        [[maybe_unused]] auto r = ::read(impl_->event_fd, &count, sizeof count);
        std::deque<posted_item> batch;
        {
          std::lock_guard lock(impl_->post_mutex);
          batch.swap(impl_->posted);
        }
        for (auto& item : batch) {
          item.state->callback(item.state, item.error, item.bytes);
          ++processed;
        }
      } else if (tag == &timer_marker) {
        std::uint64_t expirations;
        [[maybe_unused]] auto r = ::read(impl_->timer_fd, &expirations, sizeof expirations);
        fire_due_timers();
      } else {
        auto* state = static_cast<detail::io_state*>(tag);
        bool mine = false;
        {
          std::lock_guard lock(impl_->fd_mutex);
          auto it = impl_->fd_waits.find(state);
          if (it != impl_->fd_waits.end()) {
            epoll_ctl(impl_->epoll_fd, EPOLL_CTL_DEL, it->second, nullptr);
            impl_->fd_waits.erase(it);
            mine = true;
          }
        }
        if (mine) {
          state->callback(state, 0, 0);
          ++processed;
        }
      }
    }
  }
  // Wake any other thread still waiting in process_events.
  impl_->wake();
  pumping_service = outer;
  return processed;
}

}  // namespace ostrel
