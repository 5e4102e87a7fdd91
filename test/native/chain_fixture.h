// Pieces for tests of how parked task chains are freed: a detached root
// frame that takes part in chains (as spawned tasks do) and a counter of
// live frames.
#pragma once

#include <atomic>
#include <coroutine>
#include <exception>

#include "runtime/coroutine_chain.h"

namespace ostrel::testing {

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
