// One open folder being listed: FindFirstFileExW (or, in the fast mode, the
// directory-information class of GetFileInformationByHandleEx) on Windows,
// readdir on a descriptor opened relative to the parent on Linux.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "file_info.h"
#include "file_query.h"
#include "native_path.h"

namespace ostrel::scan {

struct dir_entry {
  native_string_view name;
  bool is_dir = false;
  // Set by a fast listing, which delivers the metadata with the name.
  bool has_metadata = false;
  bool hidden = false;
  bool system = false;
  std::uint64_t size = 0;
  std::uint64_t ino = 0;
  double ctimeMs = 0;
  double mtimeMs = 0;
  double birthtimeMs = 0;
};

class dir_listing {
 public:
  dir_listing() = default;
  ~dir_listing();
  dir_listing(const dir_listing&) = delete;
  dir_listing& operator=(const dir_listing&) = delete;

  // Opens the folder at `path`; `parent` (may be null) and `name` let Linux
  // open it relative to its parent. False when the folder cannot be listed
  // because it is missing or access is denied: it then ends silently. Any
  // other failure throws std::system_error.
  bool open(const native_string& path, const dir_listing* parent, native_string_view name, bool fast_metadata);
  // The next entry, "." and ".." included where the system lists them;
  // false at the end. The entry's name is valid until the next call.
  bool next(dir_entry& entry);
  // One metadata attempt for an entry of this folder (the default mode).
  query_outcome query(FileInfo& info, const dir_entry& entry) const { return query_name(info, entry.name); }
  // The same by name; `name` must end where a NUL follows (the end of a
  // std::string, or a name from next()). Safe from several threads.
  query_outcome query_name(FileInfo& info, native_string_view name) const;

 private:
  void close() noexcept;
#ifdef _WIN32
  bool next_find(dir_entry& entry);
  bool next_fast(dir_entry& entry);
  bool fetch_fast();
  void* handle_ = nullptr;  // a find handle, or a folder handle in the fast mode
  bool fast_ = false;
  bool first_ = true;
  bool done_ = false;
  int info_class_ = 0;
  std::vector<std::uint64_t> buffer_;  // 8-byte aligned listing buffer
  std::size_t offset_ = 0;
  std::wstring name_;
  std::vector<unsigned char> find_data_;
#else
  void* dir_ = nullptr;  // DIR*
  int fd_ = -1;
  bool fast_ = false;
#endif
};

// Copies a fast listing's metadata into the record.
inline void apply_listing_metadata(FileInfo& info, const dir_entry& entry) {
  info.isFile = !entry.is_dir;
  info.hidden = entry.hidden;
  info.isSystem = entry.system;
  info.size = entry.size;
  info.ino = entry.ino;
  info.ctimeMs = entry.ctimeMs;
  info.mtimeMs = entry.mtimeMs;
  info.birthtimeMs = entry.birthtimeMs;
}

}  // namespace ostrel::scan
