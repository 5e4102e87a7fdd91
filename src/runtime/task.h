// A lazily started coroutine task. The body runs when the task is first
// awaited; the awaiter is resumed by symmetric transfer when the body ends,
// so chains of tasks never grow the native stack.
#pragma once

#include <coroutine>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "coroutine_chain.h"
#include "exceptions.h"

namespace ostrel {

template <typename T = void>
class task;

namespace detail {

class task_promise_base : public promise_link {
 public:
  struct final_awaiter {
    bool await_ready() const noexcept { return false; }
    template <typename P>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<P> h) noexcept {
      auto continuation = h.promise().continuation_;
      return continuation ? continuation : std::noop_coroutine();
    }
    void await_resume() noexcept {}
  };

  std::suspend_always initial_suspend() noexcept { return {}; }
  final_awaiter final_suspend() noexcept { return {}; }
  void set_continuation(std::coroutine_handle<> c) noexcept { continuation_ = c; }

 private:
  std::coroutine_handle<> continuation_;
};

template <typename T>
class task_promise : public task_promise_base {
 public:
  task<T> get_return_object() noexcept;
  void unhandled_exception() noexcept { result_.template emplace<2>(std::current_exception()); }
  template <typename U>
  requires std::is_convertible_v<U&&, T>
  void return_value(U&& value) { result_.template emplace<1>(std::forward<U>(value)); }
  T& result() & {
    if (result_.index() == 2) std::rethrow_exception(std::get<2>(result_));
    if (result_.index() == 0) throw broken_promise();
    return std::get<1>(result_);
  }
  T&& result() && { return std::move(result()); }

 private:
  std::variant<std::monostate, T, std::exception_ptr> result_;
};

template <>
class task_promise<void> : public task_promise_base {
 public:
  task<void> get_return_object() noexcept;
  void unhandled_exception() noexcept { exception_ = std::current_exception(); }
  void return_void() noexcept {}
  void result() {
    if (exception_) std::rethrow_exception(exception_);
  }

 private:
  std::exception_ptr exception_;
};

template <typename T>
class task_promise<T&> : public task_promise_base {
 public:
  task<T&> get_return_object() noexcept;
  void unhandled_exception() noexcept { exception_ = std::current_exception(); }
  void return_value(T& value) noexcept { value_ = std::addressof(value); }
  T& result() {
    if (exception_) std::rethrow_exception(exception_);
    if (!value_) throw broken_promise();
    return *value_;
  }

 private:
  T* value_ = nullptr;
  std::exception_ptr exception_;
};

}  // namespace detail

template <typename T>
class [[nodiscard]] task {
 public:
  using promise_type = detail::task_promise<T>;
  using value_type = T;

  task() noexcept = default;
  explicit task(std::coroutine_handle<promise_type> h) noexcept : handle_(h) {}
  task(task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
  task& operator=(task&& other) noexcept {
    if (this != &other) {
      if (handle_) handle_.destroy();
      handle_ = std::exchange(other.handle_, {});
    }
    return *this;
  }
  task(const task&) = delete;
  task& operator=(const task&) = delete;
  ~task() {
    if (handle_) handle_.destroy();
  }

  bool valid() const noexcept { return static_cast<bool>(handle_); }
  bool is_ready() const noexcept { return !handle_ || handle_.done(); }

  auto operator co_await() const& noexcept { return awaiter{handle_}; }
  auto operator co_await() const&& noexcept { return rvalue_awaiter{handle_}; }

 private:
  struct awaiter_base {
    std::coroutine_handle<promise_type> h;
    bool await_ready() const noexcept { return !h || h.done(); }
    template <typename P>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<P> awaiting) noexcept {
      auto& child = h.promise();
      child.set_continuation(awaiting);
      child.self = h;
      if constexpr (std::is_base_of_v<promise_link, P>) {
        child.parent = &awaiting.promise();
      }
      return h;
    }
  };
  struct awaiter : awaiter_base {
    decltype(auto) await_resume() {
      if (!this->h) throw broken_promise();
      return this->h.promise().result();
    }
  };
  struct rvalue_awaiter : awaiter_base {
    decltype(auto) await_resume() {
      if (!this->h) throw broken_promise();
      if constexpr (std::is_void_v<T>) {
        this->h.promise().result();
      } else {
        return std::move(this->h.promise()).result();
      }
    }
  };

  std::coroutine_handle<promise_type> handle_;
};

namespace detail {
template <typename T>
task<T> task_promise<T>::get_return_object() noexcept {
  return task<T>{std::coroutine_handle<task_promise>::from_promise(*this)};
}
inline task<void> task_promise<void>::get_return_object() noexcept {
  return task<void>{std::coroutine_handle<task_promise>::from_promise(*this)};
}
template <typename T>
task<T&> task_promise<T&>::get_return_object() noexcept {
  return task<T&>{std::coroutine_handle<task_promise>::from_promise(*this)};
}
}  // namespace detail

}  // namespace ostrel
