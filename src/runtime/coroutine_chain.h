// Links between a suspended coroutine and the coroutines awaiting it, so that
// a suspended chain can be freed whole from its innermost frame.
//
// Freeing only the innermost frame of a chain (task A awaits task B, B is
// parked in a queue) would leave A holding B's dead frame; freeing A's root
// instead runs every frame's destructors once, outermost first.
#pragma once

#include <coroutine>
#include <type_traits>

namespace ostrel {

struct promise_link {
  promise_link* parent = nullptr;
  std::coroutine_handle<> self;
};

// A parked coroutine: the handle to resume and, when its promise takes part
// in chains, the link to walk up to the outermost frame when it must be freed
// instead.
class resumable {
 public:
  resumable() noexcept = default;
  template <typename P>
  resumable(std::coroutine_handle<P> h) noexcept : handle_(h) {  // NOLINT: implicit on purpose
    if constexpr (std::is_base_of_v<promise_link, P>) link_ = &h.promise();
  }

  explicit operator bool() const noexcept { return static_cast<bool>(handle_); }
  void resume() const { handle_.resume(); }
  std::coroutine_handle<> handle() const noexcept { return handle_; }

  // Frees the whole chain this coroutine belongs to without resuming it.
  void destroy() const noexcept {
    if (!link_) {
      handle_.destroy();
      return;
    }
    promise_link* root = link_;
    while (root->parent) root = root->parent;
    root->self.destroy();
  }

 private:
  std::coroutine_handle<> handle_;
  promise_link* link_ = nullptr;
};

}  // namespace ostrel
