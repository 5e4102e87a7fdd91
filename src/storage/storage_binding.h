// The storage exports' script side, shared with the runtime probe, which
// starts the same calls over a machine described by a test.
#pragma once

#include <napi.h>

#include <memory>

#include "storage_source.h"

namespace ostrel::storage {

enum class storage_list { drives, disks };

// Reads the optional options object ({ timeoutMs }; a value that is not an
// object is ignored), starts the list on a job thread and returns its
// promise.
Napi::Value start_storage_list(Napi::Env env, Napi::Value options, storage_list which,
                               std::shared_ptr<storage_source> source);

}  // namespace ostrel::storage
