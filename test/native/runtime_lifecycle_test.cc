// The process-wide runtime's holds, blocking jobs on threads of their own,
// hops to the pool, and the session registry that clean-up stops first.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "runtime/blocking.h"
#include "runtime/runtime.h"
#include "runtime/sessions.h"
#include "runtime/sync_wait.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;

TEST(SessionRegistry, StopAllStopsLiveSessionsOnceAndLaterOnesAtOnce) {
  auto registry = std::make_shared<session_registry>();
  int live = 0, ended = 0, late = 0;
  auto kept = session_registry::add(registry, [&] { ++live; });
  {
    auto gone = session_registry::add(registry, [&] { ++ended; });
  }  // the session ended first
  EXPECT_EQ(registry->size(), 1u);
  registry->stop_all();
  registry->stop_all();
  EXPECT_EQ(live, 1);
  EXPECT_EQ(ended, 0);
  // A session started during clean-up is stopped before it can do anything.
  auto after = session_registry::add(registry, [&] { ++late; });
  EXPECT_EQ(late, 1);
  EXPECT_EQ(registry->size(), 0u);
  // A ticket that outlives its registry lets go without running its action.
  bool orphan_stopped = false;
  {
    auto orphan = session_registry::add(std::make_shared<session_registry>(), [&] { orphan_stopped = true; });
  }
  EXPECT_FALSE(orphan_stopped);
}

TEST(Runtime, HoldsStartOnceAndTheLastReleaseStops) {
  runtime::acquire(2);
  thread_pool* first = runtime::pool();
  runtime::acquire(2);
  EXPECT_EQ(runtime::pool(), first);  // a second environment shares it
  EXPECT_FALSE(runtime::release(5s));
  EXPECT_NE(runtime::pool(), nullptr);
  EXPECT_TRUE(runtime::release(5s));
  EXPECT_EQ(runtime::pool(), nullptr);
  EXPECT_EQ(runtime::io(), nullptr);
}

TEST(Blocking, AJobRunsWhollyOnItsOwnThreadAndTheTaskGoesOnOnThePool) {
  runtime::acquire(2);
  struct seen {
    std::thread::id job_start, job_end, after;
    bool after_on_pool = false;
  } s;
  sync_wait([](seen& s) -> task<void> {
    auto job = on_own_thread([&s] {
      s.job_start = std::this_thread::get_id();
      std::this_thread::sleep_for(5ms);
      s.job_end = std::this_thread::get_id();
      return 42;
    });
    EXPECT_EQ(co_await job, 42);
    s.after = std::this_thread::get_id();
    s.after_on_pool = runtime::pool()->is_worker_thread();
    auto failing = on_own_thread([]() -> int { throw std::runtime_error("job failed"); });
    EXPECT_THROW(co_await failing, std::runtime_error);
  }(s));
  EXPECT_EQ(s.job_start, s.job_end);
  EXPECT_NE(s.job_start, s.after);
  EXPECT_TRUE(s.after_on_pool);
  EXPECT_TRUE(runtime::release(5s));
}

TEST(Blocking, WithoutARuntimeNothingRunsAndTheTaskIsTold) {
  ASSERT_EQ(runtime::pool(), nullptr);
  bool ran = false;
  EXPECT_THROW(sync_wait([]() -> task<void> { co_await on_pool(); }()), runtime_stopped);
  EXPECT_THROW(sync_wait([](bool& ran) -> task<void> {
                 auto job = on_own_thread([&ran] { ran = true; });
                 co_await job;
               }(ran)),
               runtime_stopped);
  EXPECT_FALSE(ran);
}

// A job stuck in a call nothing can wake must not hold the process up: the
// last release waits for it only as long as it is told to.
TEST(Runtime, TheLastReleaseLeavesAStuckJobRunningAfterTheGrace) {
  runtime::acquire(2);
  auto ended = std::make_shared<std::atomic<bool>>(false);
  ASSERT_TRUE(runtime::start_job_thread([ended] {
    std::this_thread::sleep_for(1500ms);
    ended->store(true);
  }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(runtime::release(100ms));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1000ms);
  EXPECT_FALSE(ended->load());
  while (!ended->load()) std::this_thread::sleep_for(10ms);
}

}  // namespace
}  // namespace ostrel
