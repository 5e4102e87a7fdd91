#include "file_info.h"

#include <cmath>
#include <exception>
#include <filesystem>

#include "runtime/log.h"
#include "runtime/strings.h"

namespace ostrel::scan {

namespace {
std::string path_utf8(const std::filesystem::path& p) {
  return native_to_utf8(p.native());
}
}  // namespace

void strip_relative_dir(std::string& dir) {
  if (!dir.empty() && dir.front() == '.') dir.erase(0, 1);
  if (!dir.empty() && dir.front() == '/') dir.erase(0, 1);
}

FileInfo::FileInfo(native_string path, native_string_view root) : native_path(std::move(path)) {
  try {
    absolutePath = native_to_utf8(native_path);
    std::filesystem::path p(native_path);
    std::filesystem::path r(root);
    try {
      relativePath = path_utf8(p.lexically_relative(r));
      if (p.has_parent_path()) {
        relativeDir = path_utf8(p.parent_path().lexically_relative(r));
      } else {
        relativeDir = relativePath;
      }
      strip_relative_dir(relativeDir);
    } catch (...) {
      log::out("FileInfo::FileInfo(): generate relative dir error: ");
    }
    name = path_utf8(p.filename());
  } catch (const std::exception& e) {
    log::wout(L"FileInfo::FileInfo(): exception: " + to_wide(e.what()));
  } catch (...) {
    log::wout(L"FileInfo::FileInfo(): unknown exception");
  }
}

FileInfo FileInfo::from_walk(native_string path, std::size_t relative_offset, std::size_t name_offset) {
  FileInfo info = from_walk_text(path, relative_offset, name_offset);
  info.native_path = std::move(path);
  return info;
}

FileInfo FileInfo::from_walk_text(native_string_view view, std::size_t relative_offset, std::size_t name_offset) {
  FileInfo info;
  info.absolutePath = native_to_utf8(view);
  // The parts start at component boundaries, so when the path converted
  // byte for byte (valid UTF-8 on Linux) they are parts of absolutePath.
  bool same_units = sizeof(native_char) == 1 && info.absolutePath.size() == view.size();
  auto part = [&](std::size_t at, std::size_t n = native_string_view::npos) {
    return same_units ? info.absolutePath.substr(at, n) : native_to_utf8(view.substr(at, n));
  };
  info.relativePath = part(relative_offset);
  info.name = part(name_offset);
  if (name_offset > relative_offset) {
    info.relativeDir = part(relative_offset, name_offset - 1 - relative_offset);
    strip_relative_dir(info.relativeDir);
  }
  return info;
}

void FileInfo::walk_parts(native_string_view view, std::size_t relative_offset, std::size_t name_offset,
                          FileInfo& into) {
#ifndef _WIN32
  if (view.size() <= UINT32_MAX && is_valid_name(view)) {
    into.absolutePath.assign(view.data(), view.size());
    into.native_path.clear();
    into.name.clear();
    into.relativePath.clear();
    into.relativeDir.clear();
    into.in_parts = true;
    parts_of_absolute& p = into.parts;
    p.rel_start = static_cast<std::uint32_t>(relative_offset);
    p.name_start = static_cast<std::uint32_t>(name_offset);
    p.dir_start = p.rel_start;
    p.dir_len = name_offset > relative_offset ? static_cast<std::uint32_t>(name_offset - 1 - relative_offset) : 0;
    // strip_relative_dir's rule.
    for (char c : {'.', '/'}) {
      if (p.dir_len > 0 && view[p.dir_start] == c) {
        ++p.dir_start;
        --p.dir_len;
      }
    }
    return;
  }
#endif
  into = from_walk_text(view, relative_offset, name_offset);
}

void FileInfo::clear_metadata() noexcept {
  size = 0;
  ino = 0;
  ctimeMs = 0;
  mtimeMs = 0;
  birthtimeMs = 0;
}

double filetime_to_ms(std::int64_t ticks) noexcept {
  std::int64_t d = ticks - 116444736000000000LL;
  std::int64_t s = d / 10000000;
  auto r = static_cast<std::int32_t>((d - s * 10000000) * 100);
  if (r < 0) {
    s -= 1;
    r += 1000000000;
  }
  return static_cast<double>(s) * 1000.0 + r / 1e6;
}

double unix_time_to_ms(std::int64_t seconds, std::uint32_t nanoseconds) noexcept {
  return static_cast<double>(seconds) * 1000.0 + nanoseconds / 1e6;
}

double floor_to_second(double ms) noexcept {
  return std::floor(ms / 1000.0) * 1000.0;
}

}  // namespace ostrel::scan
