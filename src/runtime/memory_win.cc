#include <malloc.h>

#include "memory.h"

namespace ostrel {

void release_free_memory() noexcept {
  // Returns the C runtime heap's unused blocks to the system.
  _heapmin();
}

void tune_allocator() noexcept {}

}  // namespace ostrel
