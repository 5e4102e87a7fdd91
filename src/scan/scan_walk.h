// The folder walk of a scan: depth first, entries in the order the file
// system lists them, each produced entry counted, filtered, queried and
// collected into the scan's lists.
#pragma once

#include <memory>

#include "scan_data.h"

namespace ostrel::scan {

// Walks the scan's tree on the calling thread (the fine-grained walk when
// the scan has rules). Returns when the tree is done or the scan stopped.
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
