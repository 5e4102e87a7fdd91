// The live sessions of one script environment (scans, watches, players,
// device copies). Each registers a stop action; the environment's clean-up
// runs every action before it joins any thread, so that no worker is left
// blocked in a wait that only script (which is going away) could end.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace ostrel {

class session_registry {
 public:
  // A stop action: non-blocking, callable from any thread, idempotent. It
  // sets the session's stop flag, wakes every wait of its workers and
  // cancels its pending I/O.
  using stop_action = std::function<void()>;

  // Keeps a session registered until destroyed (any thread).
  class ticket {
   public:
    ticket() noexcept = default;
    ticket(ticket&& other) noexcept;
    ticket& operator=(ticket&& other) noexcept;
    ticket(const ticket&) = delete;
    ticket& operator=(const ticket&) = delete;
    ~ticket() { reset(); }
    void reset() noexcept;

   private:
    friend class session_registry;
    ticket(std::weak_ptr<session_registry> r, std::uint64_t id) noexcept : registry_(std::move(r)), id_(id) {}
    std::weak_ptr<session_registry> registry_;
    std::uint64_t id_ = 0;
  };

  // Registers `stop`. Once stop_all() has run, the action runs at once
  // instead (the session is stopped before it starts any work).
  static ticket add(const std::shared_ptr<session_registry>& self, stop_action stop);

  // Runs every registered action once, newest first, without the lock held.
  void stop_all() noexcept;
  bool stopping() const noexcept;
  std::size_t size() const;

 private:
  void remove(std::uint64_t id) noexcept;

  mutable std::mutex mutex_;
  std::map<std::uint64_t, stop_action> actions_;
  std::uint64_t next_id_ = 1;
  bool stopping_ = false;
};

}  // namespace ostrel
