// FileInfo: one file's or folder's metadata as the scanner and the watcher
// report it to script. The path fields are final at construction; the
// metadata fields stay zero until a query fills them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "native_path.h"

namespace ostrel::scan {

struct FileInfo {
  // The entry's full path as the walker or watcher produced it; every system
  // call uses it.
  native_string native_path;
  std::string absolutePath;
  std::string name;
  std::string relativePath;
  std::string relativeDir;
  bool isFile = false;
  bool readable = true;
  bool hidden = false;
  bool isSystem = false;
  std::uint64_t size = 0;
  std::uint64_t ino = 0;
  double ctimeMs = 0;
  double mtimeMs = 0;
  double birthtimeMs = 0;
  // A walk record may leave name, relativePath and relativeDir empty and
  // give where they lie in absolutePath instead: one allocation per record
  // instead of three. Read them through the *_text() accessors.
  struct parts_of_absolute {
    std::uint32_t rel_start = 0, name_start = 0, dir_start = 0, dir_len = 0;
  };
  parts_of_absolute parts;
  bool in_parts = false;

  std::string_view name_text() const noexcept {
    return in_parts ? std::string_view(absolutePath).substr(parts.name_start) : std::string_view(name);
  }
  std::string_view relative_path_text() const noexcept {
    return in_parts ? std::string_view(absolutePath).substr(parts.rel_start) : std::string_view(relativePath);
  }
  std::string_view relative_dir_text() const noexcept {
    return in_parts ? std::string_view(absolutePath).substr(parts.dir_start, parts.dir_len)
                    : std::string_view(relativeDir);
  }

  FileInfo() = default;
  // Computes the path fields of `path` relative to `root` lexically (no file
  // system access). A failure is logged and the fields computed so far kept.
  FileInfo(native_string path, native_string_view root);

  // The walker's form: `path` is `root` + separator + `relative`, already
  // split, so no path arithmetic is needed. Gives the same fields as the
  // constructor above for such paths.
  static FileInfo from_walk(native_string path, std::size_t relative_offset, std::size_t name_offset);
  // The same, leaving native_path empty: for a record whose metadata is
  // read by name, relative to its open folder (one allocation fewer).
  static FileInfo from_walk_text(native_string_view path, std::size_t relative_offset, std::size_t name_offset);
  // The same fields in `into` (a fresh record), in the parts form where the path converts
  // unit for unit (valid UTF-8 on Linux), else as from_walk_text.
  static void walk_parts(native_string_view path, std::size_t relative_offset, std::size_t name_offset, FileInfo& into);

  // Zeroes size, ino and the three times (an unreadable entry).
  void clear_metadata() noexcept;
};

// The relativeDir rule: drops one leading '.' byte, then one leading '/'
// byte, so that the root's own relative form "." becomes empty (and a
// first-level folder ".cache" reports "cache").
void strip_relative_dir(std::string& dir);

// A Windows file time (100 ns ticks since 1601-01-01 UTC) in milliseconds
// since 1970-01-01 UTC, keeping the sub-millisecond part.
double filetime_to_ms(std::int64_t ticks) noexcept;
// Seconds and nanoseconds since 1970 (a Linux timestamp) in milliseconds.
double unix_time_to_ms(std::int64_t seconds, std::uint32_t nanoseconds) noexcept;
// Rounds a millisecond time down to a whole second (toward minus infinity),
// still in milliseconds.
double floor_to_second(double ms) noexcept;

}  // namespace ostrel::scan
