// The event tasks wait on, handed between threads many times; meant to run
// under ThreadSanitizer as much as to pass (timed waits and hops from many
// threads, where every sync_wait's blocking event is set from another thread:
// io_service_test.cc).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "runtime/events.h"
#include "runtime/sync_wait.h"
#include "runtime/thread_pool.h"

namespace ostrel {
namespace {

TEST(RuntimeStress, AsyncEventHandsOffBetweenThreads) {
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

}  // namespace
}  // namespace ostrel
