// leaveDirs / leaveFiles: paths the walk leaves alone. Entries are paths
// relative to the scan root, or absolute paths under it; "/" and "\" are
// both separators on Windows, where the comparison ignores ASCII case.
#pragma once

#include <unordered_set>
#include <vector>

#include "native_path.h"

namespace ostrel::scan {

class leave_list {
 public:
  leave_list(const std::vector<native_string>& entries, native_string_view root);
  // `relative`: an entry's path relative to the root, native separators.
  bool contains(native_string_view relative) const;
  bool empty() const noexcept { return set_.empty(); }

  // The form entries and lookups are compared in; empty when `entry` is
  // absolute but not under `root`.
  static native_string normalise(native_string_view entry, native_string_view root);

 private:
  std::unordered_set<native_string> set_;
};

}  // namespace ostrel::scan
