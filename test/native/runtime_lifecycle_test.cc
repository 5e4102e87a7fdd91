// The process-wide runtime's holds, jobs on threads of their own, hops to the
// pool and the blocking executor, and the session registry.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <coroutine>
#include <functional>
#include <stdexcept>
#include <thread>

#include "runtime/blocking.h"
#include "runtime/blocking_executor.h"
#include "runtime/cancellation.h"
#include "runtime/exceptions.h"
#include "runtime/runtime.h"
#include "runtime/sessions.h"
#include "runtime/sync_wait.h"

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

// Runs `body` on one of the executor's threads (or never, when `t` is
// cancelled by the time a thread takes it).
struct hop {
  blocking_executor& e;
  cancellation_token t;
  bool cancelled = false;
  bool await_ready() { return false; }
  void await_suspend(std::coroutine_handle<> h) { e.post({resumable(h), t, &cancelled}); }
  void await_resume() {}
};
template <typename F>
detached_task post(blocking_executor& e, F body, cancellation_token t = {}) {
  hop h{e, std::move(t)};  // named: GCC 12 destroys an aggregate temporary of a co_await expression twice
  co_await h;
  body();
}

void wait_until(const std::function<bool()>& done) {
  for (auto end = std::chrono::steady_clock::now() + 20s; !done() && std::chrono::steady_clock::now() < end;) {
    std::this_thread::sleep_for(1ms);
  }
}

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

// The first hold starts the runtime and a second shares it. A job runs
// wholly on a thread of its own and the task goes on on the pool; a blocking
// call runs on the blocking executor, off the pool; a task cancelled before a
// thread takes it never runs its blocking part. The last release leaves a job
// or a pool task stuck in a call nothing can wake after the grace it is
// given; without a runtime nothing runs and the task is told.
TEST(Runtime, HoldsHopsAndTheLastReleaseLeavingStuckWorkAfterTheGrace) {
  runtime::acquire(2);
  auto first = runtime::pool();
  runtime::acquire(2);
  EXPECT_EQ(runtime::pool(), first);
  struct seen {
    std::thread::id job_start, job_end, after;
    bool after_on_pool = false;
  } s;
  cancellation_source source;
  source.request_cancellation();
  bool reached = false;
  sync_wait([](seen& s, cancellation_token t, bool& reached) -> task<void> {
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
    co_await on_blocking();
    EXPECT_TRUE(runtime::blocking()->is_executor_thread() && !runtime::pool()->is_worker_thread());
    try {
      co_await on_blocking(t);
      reached = true;
    } catch (const operation_cancelled&) {
    }
  }(s, source.token(), reached));
  EXPECT_FALSE(reached);
  EXPECT_EQ(s.job_start, s.job_end);
  EXPECT_NE(s.job_start, s.after);
  EXPECT_TRUE(s.after_on_pool);
  auto ended = std::make_shared<std::atomic<bool>>(false);
  ASSERT_TRUE(runtime::start_job_thread([ended] {
    std::this_thread::sleep_for(1500ms);
    ended->store(true);
  }));
  // What a task left running on the pool comes back to is kept.
  auto pool_ended = std::make_shared<std::atomic<bool>>(false);
  [](std::shared_ptr<std::atomic<bool>> ended) -> detached_task {
    co_await on_pool();
    std::this_thread::sleep_for(1500ms);
    ended->store(true);
  }(pool_ended);
  EXPECT_FALSE(runtime::release(5s));
  EXPECT_NE(runtime::pool(), nullptr);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(runtime::release(100ms));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1000ms);
  EXPECT_FALSE(ended->load() || pool_ended->load());
  EXPECT_EQ(runtime::pool(), nullptr);
  EXPECT_EQ(runtime::io(), nullptr);
  EXPECT_THROW(sync_wait([]() -> task<void> { co_await on_blocking(); }()), runtime_stopped);
  EXPECT_THROW(sync_wait([]() -> task<void> { co_await on_pool(); }()), runtime_stopped);
  EXPECT_THROW(sync_wait([](bool& reached) -> task<void> {
                 auto job = on_own_thread([&reached] { reached = true; });
                 co_await job;
               }(reached)),
               runtime_stopped);
  EXPECT_FALSE(reached);
  while (!ended->load() || !pool_ended->load()) std::this_thread::sleep_for(10ms);
}

// Foreign threads (an SDK's, a driver's) post to the pool, the service and
// the blocking executor while the runtime is released and restarted: none may
// touch a freed one (the sanitizers judge); every task runs or is freed.
struct settle_guard {
  std::atomic<long>& settled;
  ~settle_guard() { ++settled; }
};
detached_task post_from_foreign(int kind, std::atomic<long>& settled) {
  settle_guard guard{settled};
  if (kind == 0) {
    co_await on_pool();
  } else if (kind == 1) {
    if (auto io = runtime::io()) co_await io->schedule();
  } else {
    co_await on_blocking();
  }
}

TEST(Runtime, ForeignThreadsPostWhileTheRuntimeIsReleasedAndRestarted) {
  std::atomic<bool> done{false};
  std::atomic<long> started{0}, settled{0};
  std::vector<std::thread> foreign;
  for (int t = 0; t < 4; ++t) {
    foreign.emplace_back([&, t] {
      for (int i = 0; !done.load(); ++i) {
        ++started;
        post_from_foreign((t + i) % 3, settled);
        if (i % 64 == 0) std::this_thread::yield();
      }
    });
  }
  for (int round = 0; round < 200; ++round) {
    runtime::acquire(2);
    std::this_thread::sleep_for(std::chrono::microseconds(200 + round % 7 * 50));
    EXPECT_TRUE(runtime::release(2s));
  }
  done = true;
  for (auto& t : foreign) t.join();
  wait_until([&] { return settled.load() == started.load(); });
  EXPECT_EQ(settled.load(), started.load());
  EXPECT_GT(started.load(), 200);
}

// The executor's thread policy (97a398b): with its one eager thread busy, a
// burst runs on it and one spare (once a thread per call); the spare, standing
// by 10 s, ends at once at stop. Queued work cancelled before a thread takes it
// goes to the sink without its blocking call; after stop a task is freed.
TEST(BlockingExecutor, ABurstRunsOnTheBusyThreadAndOneSpareCancelledWorkGoesToTheSinkStopEndsTheSpareAtOnce) {
  auto executor = blocking_executor::create(64, 10s, 1, 10s);
  std::atomic<int> sunk{0};
  executor->set_cancelled_sink([&](resumable t) {
    ++sunk;
    t.destroy();
  });
  std::atomic<bool> go{false};
  std::atomic<int> ran{0};
  std::atomic<std::size_t> most{0};
  auto quick = [&] {
    std::this_thread::sleep_for(100us);
    std::size_t now = executor->threads(), seen = most.load();
    while (now > seen && !most.compare_exchange_weak(seen, now)) {
    }
    ++ran;
  };
  post(*executor, [&] {
    while (!go.load()) std::this_thread::sleep_for(1ms);
  });
  cancellation_source source;
  post(*executor, quick, source.token());  // queued: the only thread is busy
  for (int i = 0; i < 300; ++i) post(*executor, quick);
  source.request_cancellation();
  go = true;
  wait_until([&] { return ran.load() == 300; });
  EXPECT_EQ(ran.load(), 300);
  EXPECT_EQ(sunk.load(), 1);
  EXPECT_EQ(most.load(), 2u);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(executor->stop(2s));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_EQ(executor->threads(), 0u);
  post(*executor, quick);
  EXPECT_EQ(ran.load(), 300);
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

}  // namespace
}  // namespace ostrel
