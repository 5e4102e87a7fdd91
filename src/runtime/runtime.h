// The process-wide runtime: the I/O service, the worker pool, the threads of
// blocking jobs and the alive token. Every script environment that loads the
// module holds the runtime; the first hold starts it, the last release stops
// and frees it. Everything else only borrows it.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

#include "coroutine_chain.h"
#include "io_service.h"
#include "thread_pool.h"

namespace ostrel {

class blocking_executor;

// Shared between the module and its detached tasks: `running` is 1 while the
// runtime is up; `pending` may hold one parked task, which the final
// clean-up frees without resuming.
struct alive_token {
  std::atomic<int> running{1};
  std::mutex mutex;
  resumable pending;

  bool is_running() const noexcept { return running.load(std::memory_order_acquire) != 0; }
  // Parks a task; false (and nothing parked) when the slot is taken or the
  // runtime is shutting down.
  bool park(resumable task);
  // Takes the parked task back to resume it; empty when there is none.
  resumable unpark();
  // Clears the flag and frees a parked task.
  void shutdown() noexcept;
};

namespace runtime {

// Ownership: whoever uses the pool or the service holds it for as long as it
// does (a post, a timed wait), so no thread can use one after it was freed.
// The last release stops them; they are freed when the last holder lets go,
// or never when one of their threads was left running past the grace.
// Empty before the first hold and after the last release.
std::shared_ptr<io_service> io() noexcept;
std::shared_ptr<thread_pool> pool() noexcept;
std::shared_ptr<alive_token> alive() noexcept;
// Environments holding the runtime.
std::size_t holders() noexcept;

// Takes a hold. The first creates the alive token, the I/O service and a
// pool of `pool_size` workers, and starts the service's loop on one worker.
void acquire(std::size_t pool_size);
// Drops a hold. The last stops the service, ends the pool's workers, the
// blocking jobs' threads and the blocking executor, waiting at most `grace`
// for each kind (a thread still blocked then is left running, and what it
// may return to is never freed); `after_join` runs between the joins and the
// frees. The global lock is not held while it waits, so another environment
// may start a fresh runtime meanwhile. Callers first stop every session that
// could keep a worker waiting. Returns true when this was the last hold.
bool release(std::chrono::milliseconds grace, const std::function<void()>& after_join = {}) noexcept;

// Runs `body` on a new thread of its own, tracked so that the last release
// ends it. False (and `body` not run) when the runtime is not up.
bool start_job_thread(std::function<void()> body);
// Job threads not yet ended (for tests).
std::size_t job_threads() noexcept;

// The executor of calls that may block on a file system or a device; empty
// when the runtime is not up.
std::shared_ptr<blocking_executor> blocking() noexcept;

}  // namespace runtime
}  // namespace ostrel
