// The Linux metadata query, also usable relative to an open folder.
#pragma once

#include <string_view>

#include "file_query.h"

struct statx;

namespace ostrel::scan {

// statx of `name` relative to `dir_fd` (AT_FDCWD: `name` is a path).
// With `tally`, a success is added to it rather than recorded on its own.
struct call_tally;
query_outcome query_file_info_at(int dir_fd, const char* name, FileInfo& info, call_tally* tally = nullptr);
// Writes a statx result into the record; `name` decides `hidden`.
void fill_from_statx(FileInfo& info, const struct statx& st, std::string_view name);
// ENOENT/ENOTDIR/ELOOP: missing; EACCES/EPERM: denied; anything else: retry.
query_outcome classify_errno(int error);

}  // namespace ostrel::scan
