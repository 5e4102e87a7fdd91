#include <malloc.h>

#include "memory.h"

namespace ostrel {

void release_free_memory() noexcept {
  // Trims every arena, not only the main one (glibc 2.8 and later), and
  // releases the free pages inside them as well as the top.
  malloc_trim(0);
}

void tune_allocator() noexcept {
  // Setting it also turns the dynamic adjustment off.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
}

}  // namespace ostrel
