#include "batch_encoding.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "runtime/strings.h"

namespace ostrel::scan {

namespace {

void encode_flags_and_metadata(const FileInfo& r, std::size_t piece, double* out) {
  unsigned flags = (r.isFile ? flag_is_file : 0) | (r.hidden ? flag_hidden : 0) | (r.isSystem ? flag_system : 0) |
                   (r.readable ? flag_readable : 0);
  flags |= static_cast<unsigned>(piece) << piece_shift;
  out[f_flags] = flags;
  // Script numbers from the 64-bit values read as signed integers.
  out[f_size] = static_cast<double>(static_cast<std::int64_t>(r.size));
  out[f_ino] = static_cast<double>(static_cast<std::int64_t>(r.ino));
  out[f_ctime] = r.ctimeMs;
  out[f_mtime] = r.mtimeMs;
  out[f_birthtime] = r.birthtimeMs;
}

bool record_is_ascii(const FileInfo& r) {
  // The parts form's fields lie within absolutePath.
  return is_ascii(r.absolutePath) &&
         (r.in_parts || (is_ascii(r.name) && is_ascii(r.relativePath) && is_ascii(r.relativeDir)));
}

// An ASCII record in the parts form: its fields are where the record says.
void encode_parts(std::string& text, std::vector<std::size_t>& pieces, const FileInfo& r, double* out) {
  if (pieces.empty()) pieces.push_back(0);
  if (text.size() - pieces.back() >= text_piece_bytes) pieces.push_back(text.size());
  const std::size_t base = pieces.back();
  const std::size_t at = text.size() - base;
  text += r.absolutePath;
  const auto& p = r.parts;
  out[f_abs_start] = static_cast<double>(at);
  out[f_abs_len] = static_cast<double>(r.absolutePath.size());
  out[f_name_start] = static_cast<double>(at + p.name_start);
  out[f_name_len] = static_cast<double>(r.absolutePath.size() - p.name_start);
  out[f_dir_start] = static_cast<double>(at + p.dir_start);
  out[f_dir_len] = static_cast<double>(p.dir_len);
  out[f_rel_start] = static_cast<double>(at + p.rel_start);
  out[f_rel_len] = static_cast<double>(r.absolutePath.size() - p.rel_start);
  return encode_flags_and_metadata(r, pieces.size() - 1, out);
}

template <typename Text, typename Convert>
void encode_record(Text& text, std::vector<std::size_t>& pieces, const FileInfo& r, Convert convert, double* out) {
  using view = std::basic_string_view<typename Text::value_type>;
  if (pieces.empty()) pieces.push_back(0);
  if ((text.size() - pieces.back()) * sizeof(typename Text::value_type) >= text_piece_bytes)
    pieces.push_back(text.size());
  const std::size_t piece = pieces.size() - 1;
  const std::size_t base = pieces.back();
  const std::size_t abs_start = text.size();
  text += convert(r.absolutePath);
  const std::size_t abs_len = text.size() - abs_start;

  // A suffix of absolutePath, or appended after it.
  auto place_suffix = [&](const auto& s, std::size_t& start, std::size_t& len) {
    len = s.size();
    if (len <= abs_len && view(text).substr(abs_start + abs_len - len, len) == view(s)) {
      start = abs_start + abs_len - len;
    } else {
      start = text.size();
      text += s;
    }
  };
  std::size_t name_start, name_len, rel_start, rel_len;
  place_suffix(convert(r.name_text()), name_start, name_len);
  place_suffix(convert(r.relative_path_text()), rel_start, rel_len);

  // relativeDir: the start of relativePath, maybe without its leading dot.
  auto dir = convert(r.relative_dir_text());
  std::size_t dir_start = text.size();
  bool placed = false;
  for (std::size_t skip = 0; skip < 2 && !placed; ++skip) {
    if (skip + dir.size() <= rel_len && view(text).substr(rel_start + skip, dir.size()) == view(dir)) {
      dir_start = rel_start + skip;
      placed = true;
    }
  }
  if (!placed) text += dir;

  out[f_abs_start] = static_cast<double>(abs_start - base);
  out[f_abs_len] = static_cast<double>(abs_len);
  out[f_name_start] = static_cast<double>(name_start - base);
  out[f_name_len] = static_cast<double>(name_len);
  out[f_dir_start] = static_cast<double>(dir_start - base);
  out[f_dir_len] = static_cast<double>(dir.size());
  out[f_rel_start] = static_cast<double>(rel_start - base);
  out[f_rel_len] = static_cast<double>(rel_len);
  encode_flags_and_metadata(r, piece, out);
}

}  // namespace

void encode_batch(const std::vector<FileInfo>& files, const std::vector<FileInfo>& folders, encoded_batch& batch) {
  batch.text8.clear();
  batch.text16.clear();
  batch.pieces8.clear();
  batch.pieces16.clear();
  batch.file_count = files.size();
  batch.record_count = files.size() + folders.size();
  batch.numbers.resize(batch.record_count * fields_per_record);
  std::size_t bytes = 0;
  for (const auto& r : files) bytes += r.absolutePath.size();
  batch.text8.reserve(bytes + bytes / 8);
  auto same = [](std::string_view s) { return s; };
  auto utf16 = [](std::string_view s) { return to_utf16(s); };
  std::size_t i = 0;
  auto encode_one = [&](const FileInfo& r) {
    double* out = &batch.numbers[fields_per_record * i++];
    if (record_is_ascii(r)) {
      if (r.in_parts) return encode_parts(batch.text8, batch.pieces8, r, out);
      encode_record(batch.text8, batch.pieces8, r, same, out);
    } else {
      encode_record(batch.text16, batch.pieces16, r, utf16, out);
      out[f_flags] = static_cast<double>(static_cast<unsigned>(out[f_flags]) | flag_wide);
    }
  };
  for (const auto& r : files) encode_one(r);
  for (const auto& r : folders) encode_one(r);
}

}  // namespace ostrel::scan
