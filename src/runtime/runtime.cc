#include "runtime.h"

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
// Written only on the main thread (initialiser, clean-up); atomics because
// workers read them while a task runs.
std::atomic<io_service*> g_io{nullptr};
std::atomic<thread_pool*> g_pool{nullptr};
std::shared_ptr<alive_token> g_alive;
std::mutex g_alive_mutex;
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

void create(std::size_t pool_size) {
  {
    auto token = std::make_shared<alive_token>();
    std::lock_guard lock(g_alive_mutex);
    if (g_alive) g_alive->shutdown();
    g_alive = std::move(token);
  }
  delete g_io.exchange(new io_service());
  delete g_pool.exchange(new thread_pool(pool_size));
}

void stop_threads() noexcept {
  if (auto* s = io()) s->stop();
  if (auto* p = pool()) p->shutdown();
}

void destroy() noexcept {
  delete g_pool.exchange(nullptr);
  delete g_io.exchange(nullptr);
  std::shared_ptr<alive_token> token;
  {
    std::lock_guard lock(g_alive_mutex);
    token = std::move(g_alive);
  }
  if (token) token->shutdown();
}

}  // namespace runtime
}  // namespace ostrel
