// Giving memory back to the operating system after a burst of work. A scan
// of a big tree allocates and frees hundreds of megabytes on its own
// threads; the C allocator keeps what those threads freed in per-thread
// arenas unless asked to return it.
#pragma once

namespace ostrel {

// Returns the allocator's free memory to the operating system where the
// platform allows it (malloc_trim on Linux, _heapmin on Windows). Takes
// milliseconds: call it on a pool worker, once per finished burst.
void release_free_memory() noexcept;

// Once per process, when the runtime starts: on Linux, pins glibc's mmap
// threshold at its default (128 KiB). Left dynamic, glibc raises it to the
// size of the largest mmapped block ever freed (a scan's record vectors
// reach megabytes), after which blocks that big come from the per-thread
// arenas and stay there: repeated 200,000-file scans then held about 90 MB
// more than their first run. Pinned, big blocks go back to the system when
// freed. Nothing on Windows.
void tune_allocator() noexcept;

}  // namespace ostrel
