// Pieces of the Windows metadata query shared with the fast listing.
#pragma once

#include <cstdint>
#include <string>

#include "file_info.h"

namespace ostrel::scan {

// The "\\?\" form of a path, which lifts the 260-character limit.
std::wstring long_path_form(const std::wstring& path);
// Writes attributes, size, index and the three file times into the record.
void fill_from_attributes(FileInfo& info, std::uint32_t attributes, std::uint64_t size, std::uint64_t index,
                          std::int64_t change, std::int64_t write, std::int64_t creation);

}  // namespace ostrel::scan
