// The blocking executor's thread policy: a burst of quick calls runs on a few
// threads; calls stuck for good never keep the work behind them waiting.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <coroutine>
#include <functional>
#include <thread>

#include "runtime/blocking_executor.h"
#include "runtime/coroutine_chain.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;

// A coroutine nobody awaits; it frees itself at its end.
struct detached_task {
  struct promise_type {
    detached_task get_return_object() noexcept { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() noexcept {}
    void unhandled_exception() noexcept {}
  };
};

struct hop {
  blocking_executor& e;
  bool await_ready() { return false; }
  void await_suspend(std::coroutine_handle<> h) { e.post({resumable(h), {}, nullptr}); }
  void await_resume() {}
};

// Runs `body` on one of the executor's threads.
template <typename F>
detached_task post(blocking_executor& e, F body) {
  hop h{e};  // named: GCC 12 destroys an aggregate temporary of a co_await expression twice
  co_await h;
  body();
}

void wait_until(const std::function<bool()>& done) {
  for (auto end = std::chrono::steady_clock::now() + 20s; !done() && std::chrono::steady_clock::now() < end;) {
    std::this_thread::sleep_for(1ms);
  }
}

TEST(BlockingExecutor, ABurstOfQuickCallsRunsOnAFewThreads) {
  auto executor = blocking_executor::create(64, 10s, 4, 50ms);
  std::atomic<int> ran{0};
  std::atomic<std::size_t> most{0};
  for (int i = 0; i < 300; ++i) {
    post(*executor, [&] {
      std::this_thread::sleep_for(100us);
      std::size_t now = executor->threads(), seen = most.load();
      while (now > seen && !most.compare_exchange_weak(seen, now)) {
      }
      ++ran;
    });
  }
  wait_until([&] { return ran.load() == 300; });
  EXPECT_EQ(ran.load(), 300);
  // Four at once, a spare, and a few more only if the machine was so busy
  // that the queue's head waited 50 ms (a thread a call started dozens).
  EXPECT_LE(most.load(), 12u);
  EXPECT_TRUE(executor->stop(2s));
}

TEST(BlockingExecutor, CallsStuckForGoodNeverHoldUpTheWorkBehindThem) {
  auto executor = blocking_executor::create(64, 10s, 2, 20ms);
  std::atomic<bool> release{false};
  std::atomic<int> stuck{0}, quick{0};
  // More stuck calls than eager threads: each waits for a spare to take it.
  for (int i = 0; i < 10; ++i) {
    post(*executor, [&] {
      ++stuck;
      while (!release.load()) std::this_thread::sleep_for(1ms);
    });
  }
  wait_until([&] { return stuck.load() == 10; });
  EXPECT_EQ(stuck.load(), 10);
  for (int i = 0; i < 5; ++i) post(*executor, [&] { ++quick; });
  wait_until([&] { return quick.load() == 5; });
  EXPECT_EQ(quick.load(), 5);
  release = true;
  EXPECT_TRUE(executor->stop(2s));
}

TEST(BlockingExecutor, StopEndsASpareStillWaiting) {
  auto executor = blocking_executor::create(4, 10s, 1, 10s);
  std::atomic<bool> release{false};
  std::atomic<int> ran{0};
  post(*executor, [&] {
    ++ran;
    while (!release.load()) std::this_thread::sleep_for(1ms);
  });
  wait_until([&] { return ran.load() == 1; });
  post(*executor, [&] { ++ran; });  // queued; the spare would wait 10 s for it
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(executor->threads(), 2u);
  release = true;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(executor->stop(2s));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_EQ(executor->threads(), 0u);
}

}  // namespace
}  // namespace ostrel
