// Exceptions the coroutine runtime throws into awaiting tasks.
#pragma once

#include <stdexcept>

namespace ostrel {

// Thrown from an await whose operation was cancelled through its token.
class operation_cancelled : public std::exception {
 public:
  const char* what() const noexcept override { return "operation cancelled"; }
};

// Thrown from an await on a task whose coroutine was destroyed without
// producing a result.
class broken_promise : public std::logic_error {
 public:
  broken_promise() : std::logic_error("broken promise") {}
};

}  // namespace ostrel
