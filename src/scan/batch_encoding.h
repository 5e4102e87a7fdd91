// An update's records in the form script turns into file objects fastest:
// one string holding every record's text, and one array of numbers per
// record giving where each string field lies in that text, the flags and
// the metadata. A record's name, relativePath and relativeDir are usually
// parts of its absolutePath, so they take no room of their own.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "file_info.h"

namespace ostrel::scan {

// Numbers per record, in this order.
enum record_field : std::size_t {
  f_abs_start,
  f_abs_len,
  f_name_start,
  f_name_len,
  f_dir_start,
  f_dir_len,
  f_rel_start,
  f_rel_len,
  f_flags,
  f_size,
  f_ino,
  f_ctime,
  f_mtime,
  f_birthtime,
  fields_per_record
};
// Bits of f_flags.
// flag_wide: the record's strings are in text16, otherwise in text8.
inline constexpr unsigned flag_is_file = 1, flag_hidden = 2, flag_system = 4, flag_readable = 8, flag_wide = 16;
// Above the flags, f_flags holds the record's piece of its text (see
// encoded_batch): f_flags >> piece_shift.
inline constexpr unsigned piece_shift = 5;

// Text beyond which the next record starts a new piece. The script engine
// places a string this small in its young generation, whose pages stay
// mapped between updates; one string per update (hundreds of kilobytes)
// would be a large object, mapped afresh and faulted in page by page on
// every update.
inline constexpr std::size_t text_piece_bytes = 64 * 1024;

struct encoded_batch {
  std::string text8;      // the records whose strings are all ASCII
  std::u16string text16;  // the others
  // Where each piece of text8 / text16 starts; a record lies within one
  // piece, and its offsets count from that piece's start. The first piece
  // starts at 0.
  std::vector<std::size_t> pieces8;
  std::vector<std::size_t> pieces16;
  std::vector<double> numbers;
  std::size_t file_count = 0;
  std::size_t record_count = 0;
};

// Encodes `files` then `folders`. Offsets and lengths count UTF-16 units of
// the record's text, from the start of its piece.
// `into` is emptied first and its buffers reused (the delivery loop keeps
// one batch for the whole scan).
void encode_batch(const std::vector<FileInfo>& files, const std::vector<FileInfo>& folders, encoded_batch& into);
inline encoded_batch encode_batch(const std::vector<FileInfo>& files, const std::vector<FileInfo>& folders) {
  encoded_batch batch;
  encode_batch(files, folders, batch);
  return batch;
}

}  // namespace ostrel::scan
