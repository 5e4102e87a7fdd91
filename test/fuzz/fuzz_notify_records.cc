// FILE_NOTIFY_INFORMATION buffers as ReadDirectoryChangesW (or a hostile
// driver) may fill them: every record walked must lie inside the bytes
// received, and the walk must end.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "watch/change_records.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact-size heap copy, so that AddressSanitizer sees one byte too far.
  std::vector<unsigned char> buffer(data, data + size);
  std::vector<ostrel::watch::change_record> out;
  const std::size_t n = ostrel::watch::walk_notify_information(buffer.data(), buffer.size(), out);
  if (n != out.size()) std::abort();
  // Each record takes at least its 12-byte header.
  if (n > size / 12) std::abort();
  return 0;
}
