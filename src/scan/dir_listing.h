// One open folder being listed: the directory-information class of
// GetFileInformationByHandleEx on Windows, getdents64 on a descriptor opened
// relative to the parent on Linux. It is the scanner's reusable listing of
// one folder (the walk in scan_walk.cc builds on it): open, next until the
// end, end_status for how the listing ended, id for the loop guard, query
// for an entry's metadata in the default mode. One thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "file_info.h"
#include "file_query.h"
#include "native_path.h"
#include "runtime/strings.h"
#include "scan_stats.h"

namespace ostrel::scan {

struct dir_entry {
  native_string_view name;
  bool is_dir = false;
  // Linux: the listing says it is a FIFO, a socket or a device, no file to
  // report (a link to one is only found out by its query).
  bool special = false;
  // Windows: a reparse point (a junction, a symbolic link, a mount point),
  // which may lead to another volume.
  bool link = false;
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

// How opening a folder, or listing it to its end, went.
enum class listing_status {
  listed,   // opened; or, at the end of a listing, every entry was listed
  missing,  // the folder is gone, or is no folder (any more)
  denied,   // it may not be listed
  busy,     // held by someone else for a moment (Windows: a sharing or lock violation): worth another try
  failed,   // anything else: error() tells what
};

// Which folder a listing lists, whatever path led to it: the volume and the
// file id (Linux: st_dev and st_ino; Windows: the volume serial number and
// the 128-bit file id, or the 64-bit file index where that is all there is).
// Two folders are the same when both ids are known and equal.
struct folder_id {
  std::uint64_t volume = 0;
  std::uint64_t high = 0;
  std::uint64_t low = 0;
  bool known = false;
  bool same_as(const folder_id& other) const noexcept {
    return known && other.known && volume == other.volume && high == other.high && low == other.low;
  }
};

class dir_listing {
 public:
  dir_listing() = default;
  ~dir_listing();
  dir_listing(const dir_listing&) = delete;
  dir_listing& operator=(const dir_listing&) = delete;

  // Opens the folder at `path`: the root when `parent` and `entry` are
  // null, else the entry of `parent` listed as `entry` (Linux opens it
  // relative to its parent). Anything but `listed` leaves nothing to list;
  // error() then holds the platform's code.
  listing_status open(const native_string& path, const dir_listing* parent, const dir_entry* entry, bool fast_metadata);
  // The next entry, "." and ".." included where the system lists them;
  // false at the end, or when the listing failed part-way (end_status()
  // tells which). The entry's name is valid until the next call. Windows
  // closes the folder then (its entries are queried by path); Linux keeps
  // it open for the queries relative to it.
  bool next(dir_entry& entry);
  // After next() returned false: `listed` when the listing reached its end,
  // else why it stopped early (error() holds the code).
  listing_status end_status() const noexcept { return end_; }
  // The platform's error code (errno, or the Win32 error) of the last
  // failure to open or to list; 0 when there was none.
  int error() const noexcept { return error_; }
  // The folder's identity, read from the open folder; unknown when the
  // system would not say.
  const folder_id& id() const noexcept { return id_; }
  // About how many entries the folder holds, from its size on disk where
  // the platform tells it cheaply (0: unknown). Only a hint for reserving
  // room: never trusted as a count.
  std::size_t entry_hint() const noexcept { return entry_hint_; }
  // One metadata attempt for an entry of this folder (the default mode).
  query_outcome query(FileInfo& info, const dir_entry& entry) const { return query_name(info, entry.name); }
  // The same by name; `name` must end where a NUL follows (the end of a
  // std::string, or a name from next()). Safe from several threads.
  query_outcome query_name(FileInfo& info, native_string_view name) const;
  // Whether query_name reads the entry's full path from info.native_path
  // (Windows opens the entry by its path) rather than using `name`.
#ifdef _WIN32
  static constexpr bool query_reads_full_path = true;
#else
  static constexpr bool query_reads_full_path = false;
#endif

  // How the platform's error `code` counts for a folder being opened or
  // listed.
  static listing_status classify(int code) noexcept;
  // The platform's short description of an error code.
  static std::string describe(int code) {
    return system_error_text(code);
  }

 private:
  void close() noexcept;
  // Records a failure to list part-way; ends the listing.
  void fail_listing(int code) noexcept;
  listing_status end_ = listing_status::listed;
  int error_ = 0;
  folder_id id_;
  std::size_t entry_hint_ = 0;
#ifdef _WIN32
  bool next_entry(dir_entry& entry);
  bool fetch();
  void* handle_ = nullptr;  // the folder, open for listing
  bool fast_ = false;
  bool first_ = true;
  bool done_ = false;
  int info_class_ = 0;
  std::vector<std::uint64_t> buffer_;  // 8-byte aligned listing buffer
  std::size_t offset_ = 0;
  std::wstring name_;
#else
  int fd_ = -1;
  bool fast_ = false;
  bool at_end_ = false;
  // getdents64 records; dropped once the listing has ended (the folder
  // stays open for the queries and opens relative to it).
  std::vector<char> buffer_;
  std::size_t filled_ = 0;
  std::size_t pos_ = 0;
  // The default mode's successful statx calls, recorded when it closes.
  mutable call_tally tally_;
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
