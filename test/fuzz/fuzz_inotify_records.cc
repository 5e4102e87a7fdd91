// inotify read() results as the kernel (or a hostile file system) may fill
// them: every record walked must lie inside the bytes received.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "watch/change_records.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<unsigned char> buffer(data, data + size);
  std::vector<ostrel::watch::inotify_record> out;
  const std::size_t n = ostrel::watch::walk_inotify_events(buffer.data(), buffer.size(), out);
  if (n != out.size()) std::abort();
  std::size_t used = 0;
  for (const auto& r : out) {
    // A name is at most the record's len bytes, and holds no NUL.
    if (r.name.find('\0') != std::string::npos) std::abort();
    used += 16 + r.name.size();
  }
  if (used > size) std::abort();
  return 0;
}
