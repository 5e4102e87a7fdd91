// The operating system's id of the calling thread, as log lines print it.
#pragma once

#include <cstdint>

namespace ostrel {
std::uint64_t current_thread_id() noexcept;
}
