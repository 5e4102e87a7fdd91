// FileInfo records as script file objects, with their own properties in the
// fixed order: absolutePath, name, relativeDir, relativePath, dirPath,
// isFile, hidden, isSystem, size, ino, ctimeMs, mtimeMs, birthtimeMs,
// readable. Main thread only.
#pragma once

#include <napi.h>

#include <string_view>

#include "batch_encoding.h"
#include "file_info.h"
#include "runtime/napi_util.h"

namespace ostrel::scan {

// One record; "dirPath" is the root of the call that produced it.
napi_value file_info_to_object(napi_env env, const FileInfo& info, napi_value dir_path);

// Builds many file objects at once: a small script function, compiled once
// per scan, turns an encoded batch into objects of one shape, with their
// strings cut from one shared text.
class file_object_factory {
 public:
  // Main thread. The function is a script_ref, so the factory may be freed
  // on any thread.
  explicit file_object_factory(napi_env env);
  file_object_factory(const file_object_factory&) = delete;
  file_object_factory& operator=(const file_object_factory&) = delete;

  // The update object { nodes, dirs } of an encoded batch.
  napi_value make_update(const encoded_batch& batch, napi_value dir_path) const;

 private:
  // A Float64Array of at least `count` numbers, kept for the next updates.
  napi_value numbers_for(std::size_t count) const;

  napi_env env_;
  script_ref function_;
  mutable script_ref numbers_;
  mutable std::size_t numbers_capacity_ = 0;
};

}  // namespace ostrel::scan
