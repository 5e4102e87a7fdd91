#include "cancellation.h"

#include "exceptions.h"

namespace ostrel {

bool cancellation_token::is_cancellation_requested() const noexcept {
  return state_ && state_->requested();
}

void cancellation_token::throw_if_cancellation_requested() const {
  if (is_cancellation_requested()) throw operation_cancelled();
}

cancellation_source::cancellation_source() : state_(std::make_shared<detail::cancellation_state>()) {}

void cancellation_source::request_cancellation() {
  state_->request();
}

bool cancellation_source::is_cancellation_requested() const noexcept {
  return state_->requested();
}

cancellation_registration::cancellation_registration(const cancellation_token& token, std::function<void()> callback)
    : state_(token.state_), callback_(std::move(callback)) {
  if (!state_) return;
  if (!state_->add(this)) callback_();
}

cancellation_registration::~cancellation_registration() {
  if (state_) state_->remove(this);
}

namespace detail {

bool cancellation_state::requested() const noexcept {
  std::lock_guard lock(mutex_);
  return requested_;
}

bool cancellation_state::add(cancellation_registration* r) {
  std::lock_guard lock(mutex_);
  if (requested_) return false;
  r->position_ = registrations_.insert(registrations_.end(), r);
  r->registered_ = true;
  return true;
}

void cancellation_state::remove(cancellation_registration* r) {
  std::unique_lock lock(mutex_);
  if (!r->registered_) {
    // Already taken off the list by request(); if its callback is running on
    // another thread, wait for it to end before the owner frees anything.
    if (running_ == r && running_thread_ != std::this_thread::get_id()) {
      idle_.wait(lock, [&] { return running_ != r; });
    }
    return;
  }
  registrations_.erase(r->position_);
  r->registered_ = false;
}

void cancellation_state::request() {
  std::unique_lock lock(mutex_);
  if (requested_) return;
  requested_ = true;
  while (!registrations_.empty()) {
    cancellation_registration* r = registrations_.front();
    registrations_.pop_front();
    r->registered_ = false;
    running_ = r;
    running_thread_ = std::this_thread::get_id();
    // TRICKY: the callback runs without the lock so that it may destroy its
    // own or other registrations; `running_` makes a concurrent destructor of
    // this registration wait until the callback has returned.
    lock.unlock();
    r->callback_();
    lock.lock();
    running_ = nullptr;
    idle_.notify_all();
  }
}

}  // namespace detail
}  // namespace ostrel
