// The I/O service: timed waits, cancellation, stop, and the overlapped-style
// operation's cancellation at every moment.
#ifndef _WIN32
#include <fcntl.h>
#include <unistd.h>
#endif
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "runtime/clock.h"
#include "runtime/io_service.h"
#include "runtime/sync_wait.h"
#include "runtime/thread_pool.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;

// An I/O service pumped by its own thread for one test.
struct pumped_service {
  io_service service;
  std::thread pump{[this] { service.process_events(); }};
  ~pumped_service() {
    service.stop();
    pump.join();
  }
};

TEST(IoService, TimedWaitsNeverWakeEarlyAndFireInDeadlineOrderOnTheServiceThread) {
  pumped_service s;
  std::mutex m;
  // Deadlines in the order the waits fired.
  std::vector<std::int64_t> fired;
  auto wait = [&](int ms) -> task<std::int64_t> {
    const std::int64_t start = monotonic_ns();
    co_await s.service.schedule_after(std::chrono::milliseconds(ms));
    EXPECT_TRUE(s.service.is_service_thread());
    {
      std::lock_guard lock(m);
      fired.push_back(start + ms * 1'000'000LL);
    }
    co_return monotonic_ns() - start;
  };
  std::vector<std::future<std::int64_t>> waits;
  const int expected_ms[] = {40, 5, 25, 1, 15, 60, 10};
  for (int ms : expected_ms) {
    waits.push_back(std::async(std::launch::async, [&, ms] { return sync_wait(wait(ms)); }));
    std::this_thread::sleep_for(1ms);
  }
  for (std::size_t i = 0; i < waits.size(); ++i) {
    std::int64_t waited = waits[i].get();
    EXPECT_GE(waited, expected_ms[i] * 1'000'000LL) << expected_ms[i] << " ms woke early";
  }
  // In the order of their deadlines, however late each thread started its
  // wait; deadlines closer than 1 ms may swap (each thread reads the clock).
  ASSERT_EQ(fired.size(), waits.size());
  for (std::size_t i = 1; i < fired.size(); ++i) {
    EXPECT_LT(fired[i - 1], fired[i] + 1'000'000LL) << "wait " << i - 1 << " fired after a later deadline";
  }
}

TEST(IoService, CancelledTimedWaitThrowsOnTheServiceThread) {
  pumped_service s;
  cancellation_source source;
  std::atomic<bool> waiting{false};
  auto result = std::async(std::launch::async, [&] {
    return sync_wait([&]() -> task<bool> {
      try {
        waiting = true;
        co_await s.service.schedule_after(10s, source.token());
      } catch (const operation_cancelled&) {
        co_return s.service.is_service_thread();
      }
      co_return false;
    }());
  });
  // Cancelled before the wait is registered, the token would end it on the
  // waiting thread: let that thread get there first.
  while (!waiting) std::this_thread::sleep_for(1ms);
  std::this_thread::sleep_for(50ms);
  source.request_cancellation();
  EXPECT_TRUE(result.get());
  // An already cancelled token skips the wait.
  EXPECT_THROW(sync_wait([&]() -> task<void> { co_await s.service.schedule_after(10s, source.token()); }()),
               operation_cancelled);
}

// Threads racing timed waits against their cancellation from yet another
// thread (before, during or after the start), then hopping to a pool and
// back: every wait resumes exactly once (and ThreadSanitizer judges).
TEST(IoService, CancellationsRacingExpiryFromManyThreadsResumeEachWaitOnce) {
  pumped_service s;
  thread_pool pool(4);
  std::atomic<int> resumed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 100; ++i) {
        cancellation_source source;
        std::thread canceller([&] {
          if ((i + t) % 3) std::this_thread::sleep_for(std::chrono::microseconds(i % 50));
          source.request_cancellation();
        });
        sync_wait([&]() -> task<void> {
          try {
            co_await s.service.schedule_after(std::chrono::milliseconds(i % 2), source.token());
          } catch (const operation_cancelled&) {
          }
          ++resumed;
          co_await pool.schedule();
          co_await s.service.schedule();
          EXPECT_TRUE(s.service.is_service_thread());
        }());
        canceller.join();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(resumed, 600);
  // The pool's size: at least four threads, else one per core.
  EXPECT_EQ(thread_pool::default_size(2), 4u);
  EXPECT_EQ(thread_pool::default_size(16), 16u);
  EXPECT_EQ(pool.size(), 4u);
  pool.shutdown();
  pool.shutdown();  // idempotent
  EXPECT_EQ(pool.size(), 0u);
}

TEST(IoService, StopWakesEverySleepingPumpAtOnce) {
  io_service service;
  std::atomic<int> returned{0};
  std::vector<std::thread> pumps;
  for (int i = 0; i < 3; ++i) {
    pumps.emplace_back([&] {
      service.process_events();
      ++returned;
    });
  }
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(returned, 0);
  const std::int64_t start = monotonic_ns();
  service.stop();
  for (auto& t : pumps) t.join();
  EXPECT_LT(monotonic_ns() - start, 1'000'000'000LL);
}

#ifndef _WIN32
// A one-byte pipe read as the overlapped-style operation: a readiness wait.
// (Under Wine the watch suites drive the port's completions and CancelIoEx
// through the directory reader, the product's own operation.)
class pipe_read : public overlapped_operation<pipe_read> {
 public:
  pipe_read(io_service& s, int fd, cancellation_token ct) : overlapped_operation(std::move(ct)), s_(s), fd_(fd) {}
  bool start() noexcept {
    // Once the wait is registered the completion may already be running on
    // the service thread: write error_ only when registration failed.
    if (std::uint32_t e = s_.start_fd_wait(this, fd_)) {
      error_ = e;
      return false;
    }
    if (after_start) after_start();
    return true;
  }
  void cancel() noexcept { s_.cancel_fd_wait(this); }
  char result() {
    if (error_ != 0) throw std::system_error(static_cast<int>(error_), std::system_category(), "wait");
    char c = 0;
    if (::read(fd_, &c, 1) != 1) throw std::runtime_error("nothing to read");
    return c;
  }
  // Runs inside start(), once the operation is pending.
  std::function<void()> after_start;

 private:
  io_service& s_;
  int fd_;
};

// A pipe whose reading end the service waits on.
struct pipe_pair {
  io_service& s;
  int fds[2];
  explicit pipe_pair(io_service& service) : s(service) { EXPECT_EQ(::pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0); }
  ~pipe_pair() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  pipe_read read(cancellation_token ct) { return pipe_read(s, fds[0], std::move(ct)); }
  void write(char c) { EXPECT_EQ(::write(fds[1], &c, 1), 1); }
};

// Reads one byte on a thread of its own.
std::future<char> read_async(pipe_pair& p, cancellation_token ct = {}) {
  return std::async(std::launch::async, [&p, ct] {
    return sync_wait([](pipe_pair& p, cancellation_token ct) -> task<char> { co_return co_await p.read(ct); }(p, ct));
  });
}

// The byte a read returned, or 0 when it was cancelled; a lost cancellation
// fails after 5 s (a byte is written to end the read) instead of hanging.
char byte_or_cancelled(pipe_pair& p, std::future<char>& result, int round = 0) {
  if (result.wait_for(5s) != std::future_status::ready) {
    p.write('u');
    ADD_FAILURE() << "round " << round << ": the cancellation was lost";
  }
  try {
    return result.get();
  } catch (const operation_cancelled&) {
    return 0;
  }
}

// A read cancelled before its start, while it is being started (before it is
// marked started: such a cancellation was once lost), from another thread
// racing the start (it must end cancelled) or racing the completion (it ends
// once, and a cancelled read leaves the byte in the pipe). Cancelled while
// pending and completing when a byte arrives: every watch session does both.
TEST(OverlappedOperation, ACancellationAtAnyMomentEndsTheReadOnceAndTheNextReadCompletes) {
  pumped_service s;
  pipe_pair p(s.service);
  for (int i = 0; i < 1200; ++i) {
    const int when = i % 4;  // before, during the start, racing the start, racing the completion
    cancellation_source source;
    if (when == 0) source.request_cancellation();
    std::thread writer([&] {
      if (when == 3) p.write('z');
    });
    auto result = std::async(std::launch::async, [&] {
      return sync_wait([&]() -> task<char> {
        auto op = p.read(source.token());
        if (when == 1) op.after_start = [&] { source.request_cancellation(); };
        co_return co_await op;
      }());
    });
    std::thread canceller([&] {
      if (when >= 2) source.request_cancellation();
    });
    const char got = byte_or_cancelled(p, result, i);
    writer.join();
    canceller.join();
    if (when < 3) {
      EXPECT_EQ(got, 0) << "round " << i;
    } else if (got == 0) {
      EXPECT_EQ(read_async(p).get(), 'z') << "round " << i;
    } else {
      EXPECT_EQ(got, 'z') << "round " << i;
    }
  }
}

#endif

}  // namespace
}  // namespace ostrel
