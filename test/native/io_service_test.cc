#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "runtime/clock.h"
#include "runtime/sync_wait.h"
#include "runtime_fixture.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;
using testing::pumped_service;

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
  // Whenever each thread got to start its wait (a loaded machine may start
  // one late), the waits fire in the order of their deadlines; two deadlines
  // closer than 1 ms may swap (each thread reads the clock on its own).
  ASSERT_EQ(fired.size(), waits.size());
  for (std::size_t i = 1; i < fired.size(); ++i) {
    EXPECT_LT(fired[i - 1], fired[i] + 1'000'000LL) << "wait " << i - 1 << " fired after a later deadline";
  }
}

TEST(IoService, CancelledTimedWaitThrowsOnTheServiceThread) {
  pumped_service s;
  cancellation_source source;
  std::atomic<bool> waiting{false};
  auto t = [&]() -> task<bool> {
    try {
      waiting = true;
      co_await s.service.schedule_after(10s, source.token());
    } catch (const operation_cancelled&) {
      co_return s.service.is_service_thread();
    }
    co_return false;
  };
  auto result = std::async(std::launch::async, [&] { return sync_wait(t()); });
  // Cancelled before the wait is registered, the token would end it on this
  // thread (as an already cancelled one does): on a loaded machine the thread
  // may take long to get there.
  while (!waiting) std::this_thread::sleep_for(1ms);
  std::this_thread::sleep_for(50ms);
  const std::int64_t start = monotonic_ns();
  source.request_cancellation();
  EXPECT_TRUE(result.get());
  EXPECT_LT(monotonic_ns() - start, 2'000'000'000LL);
  // An already cancelled token skips the wait.
  EXPECT_THROW(sync_wait([&]() -> task<void> { co_await s.service.schedule_after(10s, source.token()); }()),
               operation_cancelled);
}

// Threads at once, each racing timed waits against their cancellation from
// yet another thread (before, during or after the wait starts), then
// hopping to a pool and back to the service: every wait resumes exactly
// once. Meant to run under ThreadSanitizer as much as to pass.
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

TEST(IoService, DestroyingTheServiceFreesTasksStillWaiting) {
  using testing::linked_root;
  using testing::tracker;
  std::atomic<int> alive{0};
  {
    io_service service;
    for (int i = 0; i < 5; ++i) {
      [](io_service& s, std::atomic<int>* alive) -> linked_root {
        tracker t(alive);
        co_await s.schedule_after(1h);
      }(service, &alive);
    }
    EXPECT_EQ(alive, 5);
  }
  EXPECT_EQ(alive, 0);
}

// At least four threads, else one per core.
TEST(ThreadPool, SizeRuleRunsOnWorkersAndShutsDown) {
  EXPECT_EQ(thread_pool::default_size(2), 4u);
  EXPECT_EQ(thread_pool::default_size(16), 16u);
  thread_pool pool(4);
  auto t = [&]() -> task<bool> {
    co_await pool.schedule();
    co_return pool.is_worker_thread();
  };
  EXPECT_TRUE(sync_wait(t()));
  EXPECT_EQ(pool.size(), 4u);
  pool.shutdown();
  pool.shutdown();  // idempotent
  EXPECT_EQ(pool.size(), 0u);
}

}  // namespace
}  // namespace ostrel
