#include "runtime.h"

#include <condition_variable>
#include <list>
#include <thread>

#include "log.h"
#include "memory.h"
#include "module_pin.h"

namespace ostrel {

bool alive_token::park(resumable task) {
  std::lock_guard lock(mutex);
  if (!is_running() || pending) return false;
  pending = task;
  return true;
}

resumable alive_token::unpark() {
  std::lock_guard lock(mutex);
  resumable t = pending;
  pending = {};
  return t;
}

void alive_token::shutdown() noexcept {
  resumable t;
  {
    std::lock_guard lock(mutex);
    running.store(0, std::memory_order_release);
    t = pending;
    pending = {};
  }
  if (t) t.destroy();
}

namespace runtime {

namespace {

// Threads of blocking jobs. Each entry's flag turns true when its body has
// returned; finished threads are joined when the next one starts.
class job_thread_set {
 public:
  bool start(std::function<void()> body) {
    std::list<entry> finished;
    std::lock_guard lock(mutex_);
    if (!accepting_) return false;
    reap_locked(finished);
    auto& e = threads_.emplace_back();
    e.done = std::make_shared<std::atomic<bool>>(false);
    e.thread = std::thread([this, body = std::move(body), done = e.done]() mutable {
      body();
      body = nullptr;  // the job's captures go before the thread is counted done
      std::lock_guard l(mutex_);
      done->store(true);
      ended_.notify_all();
    });
    // `finished` joins outside... its threads have returned, joining is quick.
    for (auto& f : finished) f.thread.join();
    return true;
  }

  void open() {
    std::lock_guard lock(mutex_);
    accepting_ = true;
  }

  // Stops accepting; waits up to `grace` for every job; joins those that
  // ended and detaches the rest. False when one was left running.
  bool close(std::chrono::milliseconds grace) {
    std::unique_lock lock(mutex_);
    accepting_ = false;
    ended_.wait_for(lock, grace, [this] {
      for (auto& e : threads_) {
        if (!e.done->load()) return false;
      }
      return true;
    });
    std::list<entry> all;
    all.swap(threads_);
    lock.unlock();
    bool joined = true;
    for (auto& e : all) {
      if (e.done->load()) {
        e.thread.join();
      } else {
        e.thread.detach();
        joined = false;
      }
    }
    if (!joined) {
      log::err("Ostrel left a job running past clean-up; the module stays loaded");
      pin_module();
    }
    return joined;
  }

  std::size_t size() {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (auto& e : threads_) n += e.done->load() ? 0 : 1;
    return n;
  }

 private:
  struct entry {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  void reap_locked(std::list<entry>& out) {
    for (auto it = threads_.begin(); it != threads_.end();) {
      auto next = std::next(it);
      if (it->done->load()) out.splice(out.end(), threads_, it);
      it = next;
    }
  }

  std::mutex mutex_;
  std::condition_variable ended_;
  std::list<entry> threads_;
  bool accepting_ = false;
};

// Never destroyed: a detached job thread may come back to it while the
// process exits.
job_thread_set& jobs() {
  static auto* set = new job_thread_set();
  return *set;
}

// Changed under g_mutex by acquire/release (main threads of environments);
// atomics because workers read them while a task runs.
std::mutex g_mutex;
std::size_t g_holders = 0;
std::atomic<io_service*> g_io{nullptr};
std::atomic<thread_pool*> g_pool{nullptr};
std::shared_ptr<alive_token> g_alive;
std::mutex g_alive_mutex;

// A detached coroutine that frees itself at its end.
struct pump_task {
  struct promise_type {
    pump_task get_return_object() noexcept { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() noexcept {}
    void unhandled_exception() noexcept {}
  };
};

// Moves onto a pool worker and runs the I/O service's loop there until the
// service stops.
pump_task pump(thread_pool& workers, io_service* service) {
  co_await workers.schedule();
  try {
    service->process_events();
  } catch (...) {
    // The service is no longer pumped; the loop ends without a word.
  }
}

}  // namespace

io_service* io() noexcept {
  return g_io.load(std::memory_order_acquire);
}
thread_pool* pool() noexcept {
  return g_pool.load(std::memory_order_acquire);
}

std::shared_ptr<alive_token> alive() noexcept {
  std::lock_guard lock(g_alive_mutex);
  return g_alive;
}

std::size_t holders() noexcept {
  std::lock_guard lock(g_mutex);
  return g_holders;
}

void acquire(std::size_t pool_size) {
  std::lock_guard lock(g_mutex);
  if (g_holders++ > 0) return;
  static const bool tuned = (tune_allocator(), true);
  (void)tuned;
  {
    std::lock_guard alive_lock(g_alive_mutex);
    g_alive = std::make_shared<alive_token>();
  }
  auto* service = new io_service();
  auto* workers = new thread_pool(pool_size);
  g_io.store(service, std::memory_order_release);
  g_pool.store(workers, std::memory_order_release);
  jobs().open();
  // One worker belongs to the service from now until the last release.
  pump(*workers, service);
}

bool release(std::chrono::milliseconds grace, const std::function<void()>& after_join) noexcept {
  std::lock_guard lock(g_mutex);
  if (g_holders == 0) return false;
  if (--g_holders > 0) return false;
  io_service* service = g_io.load();
  thread_pool* workers = g_pool.load();
  if (service) service->stop();
  bool jobs_ended = jobs().close(grace);
  bool workers_ended = workers ? workers->shutdown(grace) : true;
  if (!jobs_ended || !workers_ended) {
    log::err("Ostrel: a worker thread did not stop in time and was left running");
  }
  if (after_join) after_join();
  g_pool.store(nullptr, std::memory_order_release);
  g_io.store(nullptr, std::memory_order_release);
  // A worker left running comes back to the pool and may hold the service:
  // free them only when every worker has ended. A job thread left running
  // reads the globals afresh (and finds them empty), so it holds neither.
  if (workers_ended) {
    delete workers;
    delete service;
  }
  std::shared_ptr<alive_token> token;
  {
    std::lock_guard alive_lock(g_alive_mutex);
    token = std::move(g_alive);
  }
  if (token) token->shutdown();
  return true;
}

bool start_job_thread(std::function<void()> body) {
  return jobs().start(std::move(body));
}

std::size_t job_threads() noexcept {
  return jobs().size();
}

}  // namespace runtime
}  // namespace ostrel
