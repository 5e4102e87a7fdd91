// Raw change records, as the platforms report them, in one portable form.
// Windows fills a buffer with FILE_NOTIFY_INFORMATION records; Linux with
// inotify_event records. Both walks run on byte buffers here, without
// platform headers, so they are unit-tested on buffers built in the test
// (truncated and odd-length records included): a record that claims to run
// past the bytes received is dropped with a log line, never read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "scan/native_path.h"

namespace ostrel::watch {

using scan::native_string;
using scan::native_string_view;

// Change actions, as Windows numbers them.
enum : std::uint32_t {
  action_added = 1,
  action_removed = 2,
  action_modified = 3,
  action_renamed_old = 4,
  action_renamed_new = 5,
};

// One change: what happened to which item, its name relative to the
// watched root (several components joined by the native separator).
struct change_record {
  std::uint32_t action = 0;
  native_string name;
};

// Walks the FILE_NOTIFY_INFORMATION records of `bytes` bytes at `buffer`
// (NextEntryOffset, Action, FileNameLength, then FileNameLength bytes of
// UTF-16LE name), appending one change_record per record in buffer order.
// Stops at a record whose NextEntryOffset is 0, and at one that runs past
// the buffer (logged). Returns the number appended.
std::size_t walk_notify_information(const unsigned char* buffer, std::size_t bytes, std::vector<change_record>& out);

// One inotify_event: the watch it came from, its mask and cookie, and the
// name (empty for events about the watched folder itself).
struct inotify_record {
  int wd = -1;
  std::uint32_t mask = 0;
  std::uint32_t cookie = 0;
  std::string name;
};

// Walks the inotify_event records of a read() result (wd, mask, cookie,
// len, then len bytes of NUL-padded name). A record running past the
// buffer is dropped with a log line. Returns the number appended.
std::size_t walk_inotify_events(const unsigned char* buffer, std::size_t bytes, std::vector<inotify_record>& out);

// A rename inside the tree is a renamed-old record immediately followed by
// its renamed-new record. Wine reports an item moved into the tree as a
// lone renamed-new record and one moved out as a lone renamed-old record,
// where Windows reports them as added and removed: a lone one becomes
// added (new name) or removed (old name), so both say the same. Returns how
// many were changed.
std::size_t settle_unpaired_renames(std::vector<change_record>& records) noexcept;

// Where a relative name stops being reportable: the length of its prefix
// up to the end of the first component that is not valid Unicode (bytes
// that are not UTF-8 on Linux, an unpaired surrogate on Windows), or npos
// when every component is valid. Such a name would reach script changed
// (U+FFFD in place of the bad units), as a path that does not exist.
std::size_t invalid_name_prefix(native_string_view name) noexcept;

// The script event name of an action for a file or a folder: "add"/"addDir",
// "unlink"/"unlinkDir", "change"/"changeDir", "renameOld"/"renameOldDir",
// "rename"/"renameDir", and "unknown" for any other action.
const char* watch_event_name(std::uint32_t action, bool is_file) noexcept;

}  // namespace ostrel::watch
