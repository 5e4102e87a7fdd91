#include "sessions.h"

#include <utility>
#include <vector>

#include "log.h"

namespace ostrel {

session_registry::ticket::ticket(ticket&& other) noexcept
    : registry_(std::move(other.registry_)), id_(std::exchange(other.id_, 0)) {}

session_registry::ticket& session_registry::ticket::operator=(ticket&& other) noexcept {
  if (this != &other) {
    reset();
    registry_ = std::move(other.registry_);
    id_ = std::exchange(other.id_, 0);
  }
  return *this;
}

void session_registry::ticket::reset() noexcept {
  if (id_ == 0) return;
  if (auto r = registry_.lock()) r->remove(id_);
  id_ = 0;
  registry_.reset();
}

session_registry::ticket session_registry::add(const std::shared_ptr<session_registry>& self, stop_action stop) {
  std::uint64_t id;
  {
    std::lock_guard lock(self->mutex_);
    if (!self->stopping_) {
      id = self->next_id_++;
      self->actions_.emplace(id, std::move(stop));
      return ticket(self, id);
    }
  }
  stop();
  return ticket();
}

void session_registry::remove(std::uint64_t id) noexcept {
  stop_action dropped;
  {
    std::lock_guard lock(mutex_);
    auto it = actions_.find(id);
    if (it == actions_.end()) return;
    dropped = std::move(it->second);
    actions_.erase(it);
  }
  // `dropped` may own the last reference to its session: let it go unlocked.
}

void session_registry::stop_all() noexcept {
  std::map<std::uint64_t, stop_action> actions;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    actions.swap(actions_);
  }
  for (auto it = actions.rbegin(); it != actions.rend(); ++it) {
    try {
      it->second();
    } catch (const std::exception& e) {
      log::err_value("Ostrel: a session failed to stop: ", e.what());
    } catch (...) {
      log::err("Ostrel: a session failed to stop");
    }
  }
}

bool session_registry::stopping() const noexcept {
  std::lock_guard lock(mutex_);
  return stopping_;
}

std::size_t session_registry::size() const {
  std::lock_guard lock(mutex_);
  return actions_.size();
}

}  // namespace ostrel
