// Cooperative cancellation: a source requests, tokens observe, and
// registrations run a callback once when cancellation is requested.
#pragma once

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

namespace ostrel {

namespace detail {
class cancellation_state;
}

class cancellation_token {
 public:
  // A token that can never be cancelled.
  cancellation_token() noexcept = default;

  bool can_be_cancelled() const noexcept { return static_cast<bool>(state_); }
  bool is_cancellation_requested() const noexcept;
  // Throws operation_cancelled when cancellation was requested.
  void throw_if_cancellation_requested() const;

 private:
  friend class cancellation_source;
  friend class cancellation_registration;
  explicit cancellation_token(std::shared_ptr<detail::cancellation_state> s) noexcept : state_(std::move(s)) {}
  std::shared_ptr<detail::cancellation_state> state_;
};

class cancellation_source {
 public:
  cancellation_source();
  cancellation_token token() const noexcept { return cancellation_token(state_); }
  // Runs every registered callback on this thread, once. Later registrations
  // run their callback at once in their constructor.
  void request_cancellation();
  bool is_cancellation_requested() const noexcept;

 private:
  std::shared_ptr<detail::cancellation_state> state_;
};

// Runs `callback` when the token's source requests cancellation, or at once
// if it already has. The destructor deregisters; if the callback is running
// on another thread at that moment it waits for it to finish, so whatever the
// callback touches may be freed right after the registration is destroyed.
class cancellation_registration {
 public:
  cancellation_registration(const cancellation_token& token, std::function<void()> callback);
  ~cancellation_registration();
  cancellation_registration(const cancellation_registration&) = delete;
  cancellation_registration& operator=(const cancellation_registration&) = delete;

 private:
  friend class detail::cancellation_state;
  std::shared_ptr<detail::cancellation_state> state_;
  std::function<void()> callback_;
  std::list<cancellation_registration*>::iterator position_;
  bool registered_ = false;
};

namespace detail {
class cancellation_state {
 public:
  bool requested() const noexcept;
  void request();
  // Returns false if cancellation was already requested (nothing registered).
  bool add(cancellation_registration* r);
  void remove(cancellation_registration* r);

 private:
  mutable std::mutex mutex_;
  std::condition_variable idle_;
  bool requested_ = false;
  std::list<cancellation_registration*> registrations_;
  cancellation_registration* running_ = nullptr;
  std::thread::id running_thread_;
};
}  // namespace detail

}  // namespace ostrel
