// A one-byte read on a pipe as the overlapped-style operation, through the
// I/O service: ReadFile on a named pipe completed through the port and
// cancelled with CancelIoEx (Windows), a readiness wait on a pipe (Linux).
// Completion, cancellation while pending, during the start and racing
// completion.
#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <unistd.h>
#endif
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "runtime/sync_wait.h"
#include "service_fixture.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;

class pipe_read : public overlapped_operation<pipe_read> {
 public:
#ifdef _WIN32
  pipe_read(HANDLE h, cancellation_token ct) : overlapped_operation(std::move(ct)), h_(h) {}
  bool start() noexcept {
    if (ReadFile(h_, &c_, 1, nullptr, overlapped())) return true;  // at once; the port still delivers it
    DWORD e = GetLastError();
    if (e != ERROR_IO_PENDING) {
      error_ = e;
      return false;
    }
    if (after_start) after_start();
    return true;
  }
  void cancel() noexcept {
    CancelIoEx(h_, overlapped());
  }
  char result() {
    if (error_ != 0) throw std::system_error(static_cast<int>(error_), std::system_category(), "ReadFile");
    return c_;
  }
#else
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
  void cancel() noexcept {
    s_.cancel_fd_wait(this);
  }
  char result() {
    if (error_ != 0) throw std::system_error(static_cast<int>(error_), std::system_category(), "wait");
    char c = 0;
    if (::read(fd_, &c, 1) != 1) throw std::runtime_error("nothing to read");
    return c;
  }
#endif
  // Runs inside start(), once the operation is pending.
  std::function<void()> after_start;

 private:
#ifdef _WIN32
  OVERLAPPED* overlapped() {
    return reinterpret_cast<OVERLAPPED*>(static_cast<detail::io_state*>(this));
  }
  HANDLE h_;
  char c_ = 0;
#else
  io_service& s_;
  int fd_;
#endif
};

// A pipe whose reading end the service waits on.
struct pipe_pair {
#ifdef _WIN32
  HANDLE server = INVALID_HANDLE_VALUE;
  HANDLE client = INVALID_HANDLE_VALUE;
  explicit pipe_pair(io_service& s) {
    static int counter = 0;
    std::wstring name =
        L"\\\\.\\pipe\\ostrel-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++counter);
    server = CreateNamedPipeW(name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED, PIPE_TYPE_BYTE, 1, 64, 64, 0,
                              nullptr);
    EXPECT_NE(server, INVALID_HANDLE_VALUE) << GetLastError();
    client = CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(client, INVALID_HANDLE_VALUE) << GetLastError();
    EXPECT_EQ(s.bind(server), 0u);
  }
  ~pipe_pair() {
    CloseHandle(client);
    CloseHandle(server);
  }
  pipe_read read(cancellation_token ct) {
    return pipe_read(server, std::move(ct));
  }
  void write(char c) {
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(client, &c, 1, &written, nullptr));
  }
#else
  io_service& s;
  int fds[2];
  explicit pipe_pair(io_service& service) : s(service) {
    EXPECT_EQ(::pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
  }
  ~pipe_pair() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  pipe_read read(cancellation_token ct) {
    return pipe_read(s, fds[0], std::move(ct));
  }
  void write(char c) {
    EXPECT_EQ(::write(fds[1], &c, 1), 1);
  }
#endif
};

// Reads one byte, here or on a thread of its own.
char read_now(pipe_pair& p, cancellation_token ct = {}) {
  return sync_wait([](pipe_pair& p, cancellation_token ct) -> task<char> { co_return co_await p.read(ct); }(p, ct));
}
std::future<char> read_async(pipe_pair& p, cancellation_token ct = {}) {
  return std::async(std::launch::async, [&p, ct] { return read_now(p, ct); });
}

// Rounds of the races; threads start slowly under Wine.
#ifdef _WIN32
constexpr int rounds = 100;
#else
constexpr int rounds = 600;
#endif

// A read that a cancellation must end: written to after 5 s, so that a lost
// cancellation fails instead of hanging.
void expect_cancelled(pipe_pair& p, std::future<char>& result, int round = 0) {
  if (result.wait_for(5s) != std::future_status::ready) {
    p.write('u');
    ADD_FAILURE() << "round " << round << ": the cancellation was lost";
    result.wait();
    return;
  }
  EXPECT_THROW(result.get(), operation_cancelled);
}

// A read started before its byte is written completes with it.
void expect_read_of_late_byte(pipe_pair& p, char byte) {
  auto result = read_async(p);
  std::this_thread::sleep_for(20ms);
  p.write(byte);
  EXPECT_EQ(result.get(), byte);
}

// Cancelled while pending, a read ends with operation_cancelled; the next
// read completes when its byte arrives.
TEST(OverlappedOperation, CancellingAPendingReadThrowsAndTheNextReadCompletes) {
  testing::pumped_service s;
  pipe_pair p(s.service);
  cancellation_source source;
  auto result = read_async(p, source.token());
  std::this_thread::sleep_for(50ms);
  source.request_cancellation();
  EXPECT_THROW(result.get(), operation_cancelled);
  expect_read_of_late_byte(p, 'y');
}

TEST(OverlappedOperation, CancellationRacingCompletionEndsOnce) {
  testing::pumped_service s;
  pipe_pair p(s.service);
  for (int i = 0; i < rounds; ++i) {
    cancellation_source source;
    std::thread writer([&] { p.write('z'); });
    std::thread canceller([&] { source.request_cancellation(); });
    bool cancelled = false;
    try {
      EXPECT_EQ(read_now(p, source.token()), 'z');
    } catch (const operation_cancelled&) {
      cancelled = true;
    }
    writer.join();
    canceller.join();
    // The byte is still in the pipe: read it so the next round starts empty.
    if (cancelled) {
      EXPECT_EQ(read_now(p), 'z');
    }
  }
}

// A cancellation that arrives while the operation is being started, before
// it is marked started, is honoured: the task ends with operation_cancelled
// instead of waiting for a completion that never comes.
TEST(OverlappedOperation, CancellationDuringStartIsNotLost) {
  testing::pumped_service s;
  pipe_pair p(s.service);
  cancellation_source source;
  auto result = std::async(std::launch::async, [&] {
    return sync_wait([&]() -> task<char> {
      auto op = p.read(source.token());
      op.after_start = [&] { source.request_cancellation(); };
      co_return co_await op;
    }());
  });
  expect_cancelled(p, result);
}

// Nothing is ever written: every await must end by cancellation, whenever
// the other thread requests it (before, during or after the start).
TEST(OverlappedOperation, CancellationRacingTheStartEndsEveryWait) {
  testing::pumped_service s;
  pipe_pair p(s.service);
  for (int i = 0; i < 3 * rounds; ++i) {
    cancellation_source source;
    auto result = read_async(p, source.token());
    std::thread canceller([&] { source.request_cancellation(); });
    canceller.join();
    expect_cancelled(p, result, i);
  }
}

}  // namespace
}  // namespace ostrel
