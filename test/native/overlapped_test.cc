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
#include "runtime_fixture.h"

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

// Reads one byte on a thread of its own.
std::future<char> read_async(pipe_pair& p, cancellation_token ct = {}) {
  return std::async(std::launch::async, [&p, ct] {
    return sync_wait([](pipe_pair& p, cancellation_token ct) -> task<char> { co_return co_await p.read(ct); }(p, ct));
  });
}

// Rounds of the races; threads start slowly under Wine.
#ifdef _WIN32
constexpr int rounds = 100;
#else
constexpr int rounds = 600;
#endif

// The byte a read returned, or 0 when it was cancelled. A read that only a
// cancellation can end is written to after 5 s, so that a lost cancellation
// fails instead of hanging.
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

// A read cancelled before its start, while it is being started (before it
// is marked started: such a cancellation was once lost, and the task waited
// for a completion that never came), from another thread racing the start
// (nothing is written: it must end cancelled) or racing the completion (the
// byte is written at once: it ends once, with the byte or cancelled, and a
// cancelled read leaves the byte in the pipe); then one cancelled while
// pending, and one completing when its byte arrives.
TEST(OverlappedOperation, ACancellationAtAnyMomentEndsTheReadOnceAndTheNextReadCompletes) {
  testing::pumped_service s;
  pipe_pair p(s.service);
  for (int i = 0; i < 2 * rounds; ++i) {
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
  cancellation_source source;
  auto pending = read_async(p, source.token());
  std::this_thread::sleep_for(50ms);
  source.request_cancellation();
  EXPECT_EQ(byte_or_cancelled(p, pending), 0);
  auto result = read_async(p);
  std::this_thread::sleep_for(20ms);
  p.write('y');
  EXPECT_EQ(result.get(), 'y');
}

}  // namespace
}  // namespace ostrel
