#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "runtime/events.h"
#include "runtime/sync_wait.h"
#include "runtime/task.h"
#include "runtime_fixture.h"

namespace ostrel {
namespace {

// A task is lazy: it runs when awaited. A failure reaches the awaiting
// task; awaiting an empty task is a broken promise.
TEST(Task, IsLazyAndPropagatesExceptionsThroughChains) {
  bool started = false;
  auto inner = [](bool& started) -> task<std::string> {
    started = true;
    throw std::runtime_error("inner failed");
    co_return "";
  };
  auto t = inner(started);
  EXPECT_FALSE(started);
  try {
    sync_wait(
        [](task<std::string> inner) -> task<std::string> { co_return co_await std::move(inner) + "!"; }(std::move(t)));
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "inner failed");
  }
  EXPECT_TRUE(started);
  auto empty = []() -> task<void> {
    task<int> none;
    co_await none;
  };
  EXPECT_THROW(sync_wait(empty()), broken_promise);
}

TEST(Task, LongSynchronousChainsDoNotGrowTheStack) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // Symmetric transfer relies on the compiler's tail call, which sanitizer
  // instrumentation (and -O0) prevents; the optimised builds run this.
  GTEST_SKIP() << "needs an optimised build without sanitizers";
#endif
  // A million tasks completing synchronously one after another would
  // overflow the stack without symmetric transfer.
  auto leaf = []() -> task<int> { co_return 1; };
  auto loop = [&]() -> task<long> {
    long sum = 0;
    for (int i = 0; i < 1000000; ++i) sum += co_await leaf();
    co_return sum;
  };
  EXPECT_EQ(sync_wait(loop()), 1000000);
}

using testing::linked_root;
using testing::tracker;

// Chains of a detached root and two tasks parked on an event: setting it
// runs the chain to its end; destroying the event (which frees the tasks
// still waiting on it) frees every frame of the chain from its innermost one,
// once.
TEST(CoroutineChain, ResumingRunsTheChainToItsEndAndDestroyingFromTheInnermostFreesItWhole) {
  std::atomic<int> alive{0};
  auto chain = [](std::atomic<int>* alive, async_auto_reset_event* e, bool* finished) -> linked_root {
    tracker t(alive);
    co_await [](std::atomic<int>* alive, async_auto_reset_event* e) -> task<void> {
      tracker t(alive);
      co_await [](std::atomic<int>* alive, async_auto_reset_event* e) -> task<void> {
        tracker t(alive);
        co_await *e;
      }(alive, e);
    }(alive, e);
    *finished = true;
  };
  bool finished = false;
  async_auto_reset_event resumed;
  chain(&alive, &resumed, &finished);
  EXPECT_EQ(alive, 3);
  resumed.set();
  EXPECT_TRUE(finished);
  EXPECT_EQ(alive, 0);
  finished = false;
  auto destroyed = std::make_unique<async_auto_reset_event>();
  chain(&alive, destroyed.get(), &finished);
  EXPECT_EQ(alive, 3);
  destroyed.reset();
  EXPECT_FALSE(finished);
  EXPECT_EQ(alive, 0);
}

// The events handed between threads many times; meant to run under
// ThreadSanitizer as much as to pass (timed waits and hops from many
// threads: io_service_test.cc).
TEST(AsyncEvent, HandsOffBetweenThreads) {
  thread_pool pool(4);
  async_auto_reset_event ping, pong;
  constexpr int rounds = 2000;
  std::atomic<int> count{0};
  std::thread a([&] {
    sync_wait([&]() -> task<void> {
      for (int i = 0; i < rounds; ++i) {
        co_await ping;
        ++count;
        co_await pool.schedule();
        pong.set();
      }
    }());
  });
  std::thread b([&] {
    sync_wait([&]() -> task<void> {
      for (int i = 0; i < rounds; ++i) {
        ping.set();
        co_await pong;
      }
    }());
  });
  a.join();
  b.join();
  EXPECT_EQ(count, rounds);
}

TEST(BlockingEvent, ReleasesOneWaitPerSet) {
  auto_reset_event event;
  std::atomic<int> woke{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      for (int k = 0; k < 250; ++k) {
        event.wait();
        ++woke;
      }
    });
  }
  while (woke < 1000) {
    event.set();
    std::this_thread::yield();
  }
  for (auto& t : waiters) t.join();
  EXPECT_EQ(woke, 1000);
}

}  // namespace
}  // namespace ostrel
