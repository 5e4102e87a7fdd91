#include "change_records.h"

#include <cstring>

#include "runtime/log.h"
#include "runtime/strings.h"

namespace ostrel::watch {

namespace {

std::uint32_t read_u32(const unsigned char* p) noexcept {
  // Little-endian, as both platforms lay the records out.
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

native_string native_of_utf16(const unsigned char* p, std::size_t units) {
  std::u16string text(units, u'\0');
  for (std::size_t i = 0; i < units; ++i) {
    text[i] = static_cast<char16_t>(p[2 * i] | (p[2 * i + 1] << 8));
  }
#ifdef _WIN32
  return native_string(text.begin(), text.end());
#else
  return to_utf8(text);
#endif
}

}  // namespace

std::size_t walk_notify_information(const unsigned char* buffer, std::size_t bytes, std::vector<change_record>& out) {
  constexpr std::size_t header = 12;  // NextEntryOffset, Action, FileNameLength
  std::size_t appended = 0;
  std::size_t at = 0;
  for (;;) {
    if (bytes - at < header) {
      log::err("FileWatcher: a change record runs past the buffer; the rest of the buffer is dropped");
      break;
    }
    const unsigned char* r = buffer + at;
    const std::uint32_t next = read_u32(r);
    const std::uint32_t action = read_u32(r + 4);
    const std::uint32_t name_bytes = read_u32(r + 8);
    if (name_bytes % 2 != 0 || name_bytes > bytes - at - header || (next != 0 && next < header + name_bytes)) {
      log::err("FileWatcher: a change record runs past the buffer; the rest of the buffer is dropped");
      break;
    }
    out.push_back({action, native_of_utf16(r + header, name_bytes / 2)});
    ++appended;
    if (next == 0) break;
    // Windows aligns records to 4 bytes, Wine does not always; the fields
    // are read byte by byte, so only the bounds matter.
    if (next > bytes - at) {
      log::err("FileWatcher: a change record runs past the buffer; the rest of the buffer is dropped");
      break;
    }
    at += next;
  }
  return appended;
}

std::size_t walk_inotify_events(const unsigned char* buffer, std::size_t bytes, std::vector<inotify_record>& out) {
  constexpr std::size_t header = 16;  // wd, mask, cookie, len
  std::size_t appended = 0;
  std::size_t at = 0;
  while (at < bytes) {
    if (bytes - at < header) {
      log::err("FileWatcher: an inotify record runs past the buffer; the rest of the buffer is dropped");
      break;
    }
    const unsigned char* r = buffer + at;
    const std::uint32_t len = read_u32(r + 12);
    if (len > bytes - at - header) {
      log::err("FileWatcher: an inotify record runs past the buffer; the rest of the buffer is dropped");
      break;
    }
    inotify_record rec;
    rec.wd = static_cast<int>(read_u32(r));
    rec.mask = read_u32(r + 4);
    rec.cookie = read_u32(r + 8);
    const char* name = reinterpret_cast<const char*>(r + header);
    rec.name.assign(name, strnlen(name, len));
    out.push_back(std::move(rec));
    ++appended;
    at += header + len;
  }
  return appended;
}

const char* watch_event_name(std::uint32_t action, bool is_file) noexcept {
  switch (action) {
    case action_added:
      return is_file ? "add" : "addDir";
    case action_removed:
      return is_file ? "unlink" : "unlinkDir";
    case action_modified:
      return is_file ? "change" : "changeDir";
    case action_renamed_old:
      return is_file ? "renameOld" : "renameOldDir";
    case action_renamed_new:
      return is_file ? "rename" : "renameDir";
    default:
      return "unknown";
  }
}

}  // namespace ostrel::watch
