#include "runtime.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <list>
#include <thread>

#include "log.h"
#include "memory.h"
#include "blocking_executor.h"

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

// At most this many threads block on file systems and devices at once.
constexpr std::size_t blocking_threads = 64;

// Threads of blocking jobs. Each entry's flag turns true when its body has
// returned; finished threads are joined when the next one starts.
class job_thread_set : public std::enable_shared_from_this<job_thread_set> {
 public:
  bool start(std::function<void()> body) {
    std::list<entry> finished;
    std::lock_guard lock(mutex_);
    if (!accepting_) return false;
    reap_locked(finished);
    auto& e = threads_.emplace_back();
    e.done = std::make_shared<std::atomic<bool>>(false);
    e.thread = std::thread([self = shared_from_this(), body = std::move(body), done = e.done]() mutable {
      body();
      body = nullptr;  // the job's captures go before the thread is counted done
      std::lock_guard l(self->mutex_);
      done->store(true);
      self->ended_.notify_all();
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
    if (!joined) log::err("Ostrel left a job running past clean-up");
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

// One generation of the process-wide runtime, from a first hold to the
// last release. A new hold after that starts a new generation, even while
// the old one is still being stopped.
struct instance {
  std::shared_ptr<alive_token> alive = std::make_shared<alive_token>();
  std::shared_ptr<io_service> service = std::make_shared<io_service>();
  std::shared_ptr<thread_pool> workers;
  // Shared with its threads: a job left running past the release comes back
  // to it.
  std::shared_ptr<job_thread_set> jobs = std::make_shared<job_thread_set>();
  std::shared_ptr<blocking_executor> blocking = blocking_executor::create(blocking_threads);
};

// g_mutex orders holds and releases; g_current is read by any thread under
// g_current_mutex, which is never held across a wait.
std::mutex g_mutex;
std::size_t g_holders = 0;
std::mutex g_current_mutex;
std::shared_ptr<instance> g_current;

std::shared_ptr<instance> current() noexcept {
  std::lock_guard lock(g_current_mutex);
  return g_current;
}

// What a thread left running may still come back to is kept for the life of
// the process (the module itself stays loaded from its first load on).
void keep_forever(std::shared_ptr<instance> inst) {
  static auto* kept = new std::vector<std::shared_ptr<instance>>();
  static std::mutex kept_mutex;
  std::lock_guard lock(kept_mutex);
  kept->push_back(std::move(inst));
}

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
// service stops. The frame holds the service for as long as the loop runs.
pump_task pump(std::shared_ptr<thread_pool> workers, std::shared_ptr<io_service> service) {
  co_await workers->schedule();
  workers.reset();
  try {
    service->process_events();
  } catch (...) {
    // The service is no longer pumped; the loop ends without a word.
  }
}

}  // namespace

std::shared_ptr<io_service> io() noexcept {
  auto inst = current();
  return inst ? inst->service : nullptr;
}
std::shared_ptr<thread_pool> pool() noexcept {
  auto inst = current();
  return inst ? inst->workers : nullptr;
}
std::shared_ptr<blocking_executor> blocking() noexcept {
  auto inst = current();
  return inst ? inst->blocking : nullptr;
}

std::shared_ptr<alive_token> alive() noexcept {
  auto inst = current();
  return inst ? inst->alive : nullptr;
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
  auto inst = std::make_shared<instance>();
  inst->workers = std::make_shared<thread_pool>(pool_size);
  std::weak_ptr<thread_pool> weak_pool = inst->workers;
  inst->blocking->set_cancelled_sink([weak_pool](resumable task) {
    if (auto p = weak_pool.lock()) {
      p->post(task);
    } else {
      task.destroy();
    }
  });
  inst->jobs->open();
  // One worker belongs to the service from now until the last release.
  pump(inst->workers, inst->service);
  std::lock_guard current_lock(g_current_mutex);
  g_current = std::move(inst);
}

bool release(std::chrono::milliseconds grace, const std::function<void()>& after_join) noexcept {
  std::shared_ptr<instance> inst;
  {
    std::lock_guard lock(g_mutex);
    if (g_holders == 0) return false;
    if (--g_holders > 0) return false;
    std::lock_guard current_lock(g_current_mutex);
    inst = std::move(g_current);
  }
  // TRICKY: from here on no new user can find this generation; users that
  // already hold its pool or service keep them alive but find them stopped.
  inst->service->stop();
  // One deadline for the three: a thread stuck in the kernel costs the
  // grace once, not once per executor.
  const auto deadline = std::chrono::steady_clock::now() + grace;
  auto left = [&] {
    return std::max(std::chrono::milliseconds(0),
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()));
  };
  const bool jobs_ended = inst->jobs->close(left());
  const bool blocking_ended = inst->blocking->stop(left());
  const bool workers_ended = inst->workers->shutdown(left());
  if (!jobs_ended || !workers_ended || !blocking_ended) {
    log::err("Ostrel: a worker thread did not stop in time and was left running");
  }
  if (after_join) after_join();
  // Nobody pumps the service now (unless its worker was left running).
  if (workers_ended) inst->service->close();
  inst->alive->shutdown();
  // A pool worker left running comes back to its pool and may hold the
  // service: neither is ever freed then. Job and blocking threads hold what
  // they return to themselves.
  if (!workers_ended) keep_forever(inst);
  return true;
}

bool start_job_thread(std::function<void()> body) {
  auto inst = current();
  return inst && inst->jobs->start(std::move(body));
}

std::size_t job_threads() noexcept {
  auto inst = current();
  return inst ? inst->jobs->size() : 0;
}

}  // namespace runtime
}  // namespace ostrel
