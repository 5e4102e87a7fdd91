// One script environment that loaded the module: the main thread or a
// Worker. Each has its own scheduler, its own live sessions and its own
// per-subsystem state (script references, callbacks); only the worker pool
// and the I/O service are shared, held by every environment and stopped
// after the last one is cleaned up.
//
// Clean-up runs once per environment, on its main thread, from whichever
// comes first: the environment's clean-up hook (a Worker ending, the main
// thread ending normally) or the process's 'exit' event (process.exit(),
// an uncaught exception: Node runs no clean-up hooks there). It stops every
// session first and wakes every wait, and only then joins threads, so the
// main thread never joins a worker that is waiting for it.
#pragma once

#include <node_api.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "scheduler.h"
#include "sessions.h"

namespace ostrel {

class environment : public std::enable_shared_from_this<environment> {
 public:
  // How long the last clean-up waits for a worker stuck in a blocking call
  // before leaving it running so that the process can still exit.
  static constexpr std::chrono::milliseconds join_grace{1000};

  // Sets the module up in `env` on its main thread: binds a scheduler to
  // its loop and to this thread, takes a hold on the process-wide runtime
  // (starting it with `pool_size` workers if this is the first holder) and
  // installs the clean-up hook and the 'exit' listener.
  static std::shared_ptr<environment> start(napi_env env, std::size_t pool_size);

  // The environment whose main thread is calling; null on any other thread
  // and after that environment's clean-up.
  static std::shared_ptr<environment> current() noexcept;
  // Every environment not yet cleaned up, for work that belongs to none in
  // particular (telemetry records from worker threads).
  static std::vector<std::shared_ptr<environment>> all();

  napi_env env() const noexcept { return env_; }
  scheduler& sched() noexcept { return *scheduler_; }
  const std::shared_ptr<scheduler>& shared_scheduler() const noexcept { return scheduler_; }
  // Register every session here (see session_registry).
  const std::shared_ptr<session_registry>& sessions() const noexcept { return sessions_; }
  bool is_main_thread() const noexcept { return main_thread_ == std::this_thread::get_id(); }
  bool cleaned_up() const noexcept;

  // A subsystem's state for this environment, created on first use; main
  // thread only. Freed at clean-up, on the main thread, after the sessions
  // are stopped and while the environment can still release references.
  template <typename T>
  T& data() {
    static const char key = 0;
    auto& slot = data_[&key];
    if (!slot) slot = std::make_shared<T>();
    return *static_cast<T*>(slot.get());
  }
  // The clean-up; idempotent.
  void cleanup() noexcept;

 private:
  environment() = default;
  static void on_cleanup_hook(void* arg);
  static void on_teardown_hook(napi_async_cleanup_hook_handle handle, void* arg);

  napi_env env_ = nullptr;
  std::thread::id main_thread_;
  std::shared_ptr<scheduler> scheduler_;
  std::shared_ptr<session_registry> sessions_ = std::make_shared<session_registry>();
  std::map<const void*, std::shared_ptr<void>> data_;
  mutable std::mutex mutex_;
  bool cleaned_up_ = false;
};

}  // namespace ostrel
