// Pieces for the runtime's unit tests: an I/O service pumped by its own
// thread for the duration of one test, and, for tests of how parked task
// chains are freed, a detached root frame that takes part in chains (as
// spawned tasks do) and a counter of live frames.
#pragma once

#include <atomic>
#include <coroutine>
#include <exception>
#include <thread>

#include "runtime/coroutine_chain.h"
#include "runtime/io_service.h"
#include "runtime/thread_pool.h"

namespace ostrel::testing {

struct pumped_service {
  io_service service;
  std::thread pump{[this] { service.process_events(); }};
  ~pumped_service() {
    service.stop();
    pump.join();
  }
};

struct linked_root {
  struct promise_type : promise_link {
    promise_type() { self = std::coroutine_handle<promise_type>::from_promise(*this); }
    linked_root get_return_object() { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { std::terminate(); }
  };
};

// Counts itself in `alive` while it lives.
struct tracker {
  std::atomic<int>* alive;
  explicit tracker(std::atomic<int>* a) : alive(a) { ++*alive; }
  ~tracker() { --*alive; }
};

}  // namespace ostrel::testing
