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

namespace {

#ifdef _WIN32
// The length of the valid UTF-16 at the start of `text`.
std::size_t valid_prefix(native_string_view text) noexcept {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<std::uint32_t>(text[i]);
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (i + 1 < text.size() && static_cast<std::uint32_t>(text[i + 1]) >= 0xDC00 &&
          static_cast<std::uint32_t>(text[i + 1]) <= 0xDFFF) {
        ++i;
        continue;
      }
      return i;
    }
    if (c >= 0xDC00 && c <= 0xDFFF) return i;
  }
  return text.size();
}
#else
// The length of the valid UTF-8 at the start of `text` (no overlong forms,
// no surrogates, nothing past U+10FFFF).
std::size_t valid_prefix(native_string_view text) noexcept {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  std::size_t i = 0;
  while (i < n) {
    const unsigned char c = p[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t len;
    unsigned char lo = 0x80;
    unsigned char hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      if (c == 0xE0) lo = 0xA0;
      if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      if (c == 0xF0) lo = 0x90;
      if (c == 0xF4) hi = 0x8F;
    } else {
      return i;
    }
    if (n - i < len) return i;
    if (p[i + 1] < lo || p[i + 1] > hi) return i;
    for (std::size_t k = 2; k < len; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return i;
    }
    i += len;
  }
  return n;
}
#endif

}  // namespace

std::size_t settle_unpaired_renames(std::vector<change_record>& records) noexcept {
  std::size_t changed = 0;
  for (std::size_t i = 0; i < records.size(); ++i) {
    auto& r = records[i];
    if (r.action == action_renamed_old) {
      if (i + 1 < records.size() && records[i + 1].action == action_renamed_new) {
        ++i;  // a pair
        continue;
      }
      r.action = action_removed;
      ++changed;
    } else if (r.action == action_renamed_new) {
      r.action = action_added;
      ++changed;
    }
  }
  return changed;
}

std::size_t invalid_name_prefix(native_string_view name) noexcept {
  const std::size_t valid = valid_prefix(name);
  if (valid == name.size()) return native_string_view::npos;
  std::size_t end = valid;
  while (end < name.size() && name[end] != scan::native_separator && name[end] != '/') ++end;
  return end;
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
