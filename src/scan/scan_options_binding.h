// Reading ScanAllSubFiles' options object into the native filter settings.
#pragma once

#include <napi.h>

#include <vector>

#include "scan_filters.h"

namespace ostrel::scan {

// Fills `filters` from `options`. A key whose value has the wrong type, and a
// list element of the wrong type, count as absent. Every regular expression
// is compiled here: one that does not compile throws an Error naming the
// option and the expression, and nothing is started.
void read_scan_options(Napi::Env env, Napi::Object options, ScanFilters& filters);

// The watcher's options, in the order it reads them: fineGrainedDirs,
// extFilter, ignoreDirRegs, watchTargets, then extFilter again. The same
// rules as above; errors name StartFileWatch.
void read_watch_options(Napi::Env env, Napi::Object options, ScanFilters& filters,
                        std::vector<native_string>& watch_targets);

}  // namespace ostrel::scan
