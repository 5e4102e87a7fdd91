// Many threads at once through the runtime's primitives; meant to run under
// ThreadSanitizer as much as to pass.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "runtime/events.h"
#include "runtime/sync_wait.h"
#include "service_fixture.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;

TEST(RuntimeStress, TasksHopBetweenPoolServiceAndTimers) {
  testing::pumped_service s;
  thread_pool pool(4);
  std::atomic<int> done{0};
  auto hopper = [&](int i) -> task<void> {
    for (int round = 0; round < 50; ++round) {
      co_await pool.schedule();
      co_await s.service.schedule();
      if ((i + round) % 5 == 0) co_await s.service.schedule_after(std::chrono::milliseconds(round % 3));
    }
    ++done;
  };
  std::vector<std::thread> starters;
  for (int t = 0; t < 8; ++t) {
    starters.emplace_back([&, t] {
      for (int i = 0; i < 4; ++i) sync_wait(hopper(t * 4 + i));
    });
  }
  for (auto& t : starters) t.join();
  EXPECT_EQ(done, 32);
}

TEST(RuntimeStress, CancellationsRaceTimersFromManyThreads) {
  testing::pumped_service s;
  std::atomic<int> finished{0};
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
        }());
        canceller.join();
        ++finished;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(finished, 600);
}

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

TEST(RuntimeStress, BlockingEventReleasesOneWaitPerSet) {
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
