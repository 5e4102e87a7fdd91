// The runtime singletons: the I/O service, the worker pool and the alive
// token. The module's initialiser creates them and its clean-up hook frees
// them; everything else only borrows them.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "coroutine_chain.h"
#include "io_service.h"
#include "thread_pool.h"

namespace ostrel {

// Shared between the module and its detached tasks: `running` is 1 while the
// module is up; `pending` may hold one parked task, which the clean-up hook
// frees without resuming.
struct alive_token {
  std::atomic<int> running{1};
  std::mutex mutex;
  resumable pending;

  bool is_running() const noexcept { return running.load(std::memory_order_acquire) != 0; }
  // Parks a task; false (and nothing parked) when the slot is taken or the
  // module is shutting down.
  bool park(resumable task);
  // Takes the parked task back to resume it; empty when there is none.
  resumable unpark();
  // Clears the flag and frees a parked task.
  void shutdown() noexcept;
};

namespace runtime {

// Null before start and after clean-up.
io_service* io() noexcept;
thread_pool* pool() noexcept;
std::shared_ptr<alive_token> alive() noexcept;

// Replaces the singletons (freeing earlier ones), as the initialiser does.
void create(std::size_t pool_size);
// Stops the service and joins the pool's workers (the first half of clean-up).
void stop_threads() noexcept;
// Frees the pool, then the service, then the alive token's parked task.
void destroy() noexcept;

}  // namespace runtime
}  // namespace ostrel
