// An overlapped ReadFile on a named pipe: completion through the port,
// cancellation with CancelIoEx while pending, and cancellation racing
// completion.
#include <windows.h>
// after windows.h
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
  pipe_read(HANDLE h, cancellation_token ct) : overlapped_operation(std::move(ct)), h_(h) {}
  bool start() noexcept {
    if (ReadFile(h_, &c_, 1, nullptr, reinterpret_cast<OVERLAPPED*>(static_cast<detail::io_state*>(this)))) {
      return true;  // completed at once; the port still delivers it
    }
    DWORD e = GetLastError();
    if (e != ERROR_IO_PENDING) {
      error_ = e;
      return false;
    }
    if (after_start) after_start();
    return true;
  }
  // Runs inside start(), once the read is pending.
  std::function<void()> after_start;
  void cancel() noexcept { CancelIoEx(h_, reinterpret_cast<OVERLAPPED*>(static_cast<detail::io_state*>(this))); }
  char result() {
    if (error_ != 0) throw std::system_error(static_cast<int>(error_), std::system_category(), "ReadFile");
    return c_;
  }

 private:
  HANDLE h_;
  char c_ = 0;
};

struct pipe_pair {
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
  void write(char c) {
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(client, &c, 1, &written, nullptr));
  }
  ~pipe_pair() {
    CloseHandle(client);
    CloseHandle(server);
  }
};

TEST(OverlappedOperation, CompletesThroughThePort) {
  testing::pumped_service s;
  pipe_pair p(s.service);
  auto result = std::async(std::launch::async, [&] {
    return sync_wait([&]() -> task<char> { co_return co_await pipe_read(p.server, {}); }());
  });
  std::this_thread::sleep_for(20ms);
  p.write('x');
  EXPECT_EQ(result.get(), 'x');
}

TEST(OverlappedOperation, CancelIoExEndsAPendingReadWithOperationCancelled) {
  testing::pumped_service s;
  pipe_pair p(s.service);
  cancellation_source source;
  auto result = std::async(std::launch::async, [&] {
    return sync_wait([&]() -> task<char> { co_return co_await pipe_read(p.server, source.token()); }());
  });
  std::this_thread::sleep_for(50ms);
  source.request_cancellation();
  EXPECT_THROW(result.get(), operation_cancelled);
}

TEST(OverlappedOperation, CancellationRacingCompletionEndsOnce) {
  testing::pumped_service s;
  pipe_pair p(s.service);
  for (int i = 0; i < 100; ++i) {
    cancellation_source source;
    std::thread writer([&] { p.write('z'); });
    std::thread canceller([&] { source.request_cancellation(); });
    bool cancelled = false;
    try {
      EXPECT_EQ(sync_wait([&]() -> task<char> { co_return co_await pipe_read(p.server, source.token()); }()), 'z');
    } catch (const operation_cancelled&) {
      cancelled = true;
    }
    writer.join();
    canceller.join();
    if (cancelled) {
      // The byte is still in the pipe: read it so the next round starts empty.
      EXPECT_EQ(sync_wait([&]() -> task<char> { co_return co_await pipe_read(p.server, {}); }()), 'z');
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
      auto op = pipe_read(p.server, source.token());
      op.after_start = [&] { source.request_cancellation(); };
      co_return co_await op;
    }());
  });
  if (result.wait_for(5s) != std::future_status::ready) {
    p.write('u');  // ends the wait, so the failure is reported instead of hanging
    FAIL() << "the cancellation was lost";
  }
  EXPECT_THROW(result.get(), operation_cancelled);
}

// Nothing is ever written: every await must end by cancellation, whenever
// the other thread requests it (before, during or after the start).
TEST(OverlappedOperation, CancellationRacingTheStartEndsEveryWait) {
  testing::pumped_service s;
  pipe_pair p(s.service);
  for (int i = 0; i < 300; ++i) {
    cancellation_source source;
    auto result = std::async(std::launch::async, [&] {
      return sync_wait([&]() -> task<char> { co_return co_await pipe_read(p.server, source.token()); }());
    });
    std::thread canceller([&] { source.request_cancellation(); });
    canceller.join();
    if (result.wait_for(5s) != std::future_status::ready) {
      p.write('u');
      FAIL() << "round " << i << ": the cancellation was lost";
    }
    EXPECT_THROW(result.get(), operation_cancelled);
  }
}

}  // namespace
}  // namespace ostrel
