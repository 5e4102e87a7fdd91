// A readiness wait on a pipe as the overlapped-style operation: completion,
// cancellation while pending, and cancellation racing completion.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "runtime/sync_wait.h"
#include "service_fixture.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;

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
  // Runs inside start(), once the wait is registered.
  std::function<void()> after_start;
  void cancel() noexcept { s_.cancel_fd_wait(this); }
  char result() {
    if (error_ != 0) throw std::system_error(static_cast<int>(error_), std::system_category(), "wait");
    char c = 0;
    if (::read(fd_, &c, 1) != 1) throw std::runtime_error("nothing to read");
    return c;
  }

 private:
  io_service& s_;
  int fd_;
};

struct pipe_pair {
  int fds[2];
  pipe_pair() { EXPECT_EQ(::pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0); }
  ~pipe_pair() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
};

TEST(OverlappedOperation, CompletesWhenDataArrives) {
  testing::pumped_service s;
  pipe_pair p;
  auto t = [&]() -> task<char> { co_return co_await pipe_read(s.service, p.fds[0], {}); };
  auto result = std::async(std::launch::async, [&] { return sync_wait(t()); });
  std::this_thread::sleep_for(20ms);
  ASSERT_EQ(::write(p.fds[1], "x", 1), 1);
  EXPECT_EQ(result.get(), 'x');
}

TEST(OverlappedOperation, CancellingAPendingReadThrowsOperationCancelled) {
  testing::pumped_service s;
  pipe_pair p;
  cancellation_source source;
  auto t = [&]() -> task<char> { co_return co_await pipe_read(s.service, p.fds[0], source.token()); };
  auto result = std::async(std::launch::async, [&] { return sync_wait(t()); });
  std::this_thread::sleep_for(20ms);
  source.request_cancellation();
  EXPECT_THROW(result.get(), operation_cancelled);
  // The descriptor is free for the next wait.
  auto again = std::async(std::launch::async, [&] {
    return sync_wait([&]() -> task<char> { co_return co_await pipe_read(s.service, p.fds[0], {}); }());
  });
  std::this_thread::sleep_for(10ms);
  ASSERT_EQ(::write(p.fds[1], "y", 1), 1);
  EXPECT_EQ(again.get(), 'y');
}

TEST(OverlappedOperation, CancellationRacingCompletionEndsOnce) {
  testing::pumped_service s;
  for (int i = 0; i < 300; ++i) {
    pipe_pair p;
    cancellation_source source;
    std::thread writer([&] { [[maybe_unused]] auto n = ::write(p.fds[1], "z", 1); });
    std::thread canceller([&] { source.request_cancellation(); });
    try {
      EXPECT_EQ(sync_wait([&]() -> task<char> { co_return co_await pipe_read(s.service, p.fds[0], source.token()); }()),
                'z');
    } catch (const operation_cancelled&) {
    }
    writer.join();
    canceller.join();
  }
}

// A cancellation that arrives while the operation is being started, before
// it is marked started, is honoured: the task ends with operation_cancelled
// instead of waiting for a completion that never comes.
TEST(OverlappedOperation, CancellationDuringStartIsNotLost) {
  testing::pumped_service s;
  pipe_pair p;
  cancellation_source source;
  auto result = std::async(std::launch::async, [&] {
    return sync_wait([&]() -> task<char> {
      auto op = pipe_read(s.service, p.fds[0], source.token());
      op.after_start = [&] { source.request_cancellation(); };
      co_return co_await op;
    }());
  });
  if (result.wait_for(5s) != std::future_status::ready) {
    [[maybe_unused]] auto n =
        ::write(p.fds[1], "u", 1);  // ends the wait, so the failure is reported instead of hanging
    FAIL() << "the cancellation was lost";
  }
  EXPECT_THROW(result.get(), operation_cancelled);
}

// Nothing is ever written: every await must end by cancellation, whenever
// the other thread requests it (before, during or after the start).
TEST(OverlappedOperation, CancellationRacingTheStartEndsEveryWait) {
  testing::pumped_service s;
  pipe_pair p;
  for (int i = 0; i < 2000; ++i) {
    cancellation_source source;
    auto result = std::async(std::launch::async, [&] {
      return sync_wait([&]() -> task<char> { co_return co_await pipe_read(s.service, p.fds[0], source.token()); }());
    });
    std::thread canceller([&] { source.request_cancellation(); });
    canceller.join();
    if (result.wait_for(5s) != std::future_status::ready) {
      [[maybe_unused]] auto n = ::write(p.fds[1], "u", 1);
      FAIL() << "round " << i << ": the cancellation was lost";
    }
    EXPECT_THROW(result.get(), operation_cancelled);
  }
}

}  // namespace
}  // namespace ostrel
