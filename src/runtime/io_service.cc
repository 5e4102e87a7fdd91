// The platform-independent half of the I/O service: timed waits and their
// cancellation. The platform files provide impl, post() and the wake-ups.
#include "io_service.h"

#include <cstdint>

#include "io_service_impl.h"

namespace ostrel {

void io_service::add_timer(timed_schedule_operation* op) {
  if (op->token_.can_be_cancelled()) {
    op->registration_.emplace(op->token_, [this, op] { cancel_timer(op); });
  }
  bool cancelled_already = false;
  {
    std::lock_guard lock(timers_->timer_mutex);
    if (closed_.load(std::memory_order_acquire)) {
      // Nobody pumps the service any more: the wait can never end.
      cancelled_already = true;
    } else if (op->cancelled_) {
      cancelled_already = true;
    } else {
      bool earliest = timers_->timers.empty() || op->deadline_ns_ < timers_->timers.earliest();
      op->position_ = timers_->timers.add(op->deadline_ns_, op);
      op->queued_ = true;
      if (earliest) timers_->rearm_timer_locked();
    }
  }
  if (cancelled_already) post(op, detail::io_error_cancelled, 0);
}

void io_service::cancel_timer(timed_schedule_operation* op) noexcept {
  bool post_now = false;
  {
    std::lock_guard lock(timers_->timer_mutex);
    if (op->queued_) {
      timers_->timers.remove(op->position_);
      op->queued_ = false;
      op->cancelled_ = true;
      post_now = true;
    } else if (!op->fired_) {
      // Not queued yet: add_timer sees the flag and posts the resumption.
      op->cancelled_ = true;
    }
  }
  if (post_now) post(op, detail::io_error_cancelled, 0);
}

std::size_t io_service::fire_due_timers() {
  std::vector<detail::io_state*> due;
  {
    std::lock_guard lock(timers_->timer_mutex);
    timers_->timers.take_due(monotonic_ns(), due);
    for (auto* s : due) {
      auto* op = static_cast<timed_schedule_operation*>(s);
      op->queued_ = false;
      op->fired_ = true;
    }
    timers_->rearm_timer_locked();
  }
  for (auto* s : due) post(s, 0, 0);
  return due.size();
}

void io_service::destroy_pending_timers() noexcept {
  std::vector<detail::io_state*> pending;
  {
    std::lock_guard lock(timers_->timer_mutex);
    timers_->timers.take_due(INT64_MAX, pending);
  }
  // These waits can never complete now; free the tasks behind them.
  for (auto* s : pending) static_cast<timed_schedule_operation*>(s)->waiter_.destroy();
}

void io_service::abandon_posted(detail::io_state* state) noexcept {
  if (state->callback == &schedule_operation::on_complete) {
    static_cast<schedule_operation*>(state)->waiter_.destroy();
  } else if (state->callback == &timed_schedule_operation::on_complete) {
    static_cast<timed_schedule_operation*>(state)->waiter_.destroy();
  }
}

}  // namespace ostrel
