// The folder walk of a scan: depth first, entries in the order the file
// system lists them, each produced entry counted, filtered, queried and
// collected into the scan's lists.
#pragma once

#include <memory>

#include "scan_data.h"

namespace ostrel::scan {

// Walks the scan's tree (the fine-grained walk when the scan has rules):
// the calling thread and `filters.metadata_helpers` helper threads each
// list and query whole folders (dir_listing); the calling thread collects
// the records depth first, in listing order. Entries that are no regular
// file or folder count in specialFileCount; names that are not valid
// Unicode are left out and accounted (ScanData::add_invalid_names).
// Returns when the tree is done or the scan stopped.
// A folder that cannot be listed is skipped and the walk goes on; the scan
// accounts for it (ScanData::add_skipped) unless it went away or may not be
// listed (the root is accounted for whatever the reason). A folder that
// is one of its own ancestors (the same volume and file id, reached through
// a link, junction or mount) is not walked again (ScanData::add_looped).
// Metadata retries outlive the call: each is one piece of the scan's work
// (ScanData::begin_work/end_work).
void run_walk(const std::shared_ptr<ScanData>& scan);

// The walk's form of the root: absolute, normalised, without a trailing
// separator unless it is the file system's root.
native_string walk_root(native_string_view root);

}  // namespace ostrel::scan
