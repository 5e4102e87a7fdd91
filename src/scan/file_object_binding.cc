#include "file_object_binding.h"

#include <cstdint>
#include <cstring>

#include "runtime/napi_util.h"

namespace ostrel::scan {

namespace {

// Numbers per record and their meaning are those of batch_encoding.h.
constexpr const char* factory_source = R"JS((function (narrow, wide, n, fileCount, total, dirPath) {
  'use strict';
  const nodes = new Array(fileCount);
  const dirs = new Array(total - fileCount);
  for (let i = 0, k = 0; i < total; i++, k += 14) {
    const flags = n[k + 8];
    const text = (flags & 16) !== 0 ? wide : narrow;
    const o = {
      absolutePath: text.slice(n[k], n[k] + n[k + 1]),
      name: text.slice(n[k + 2], n[k + 2] + n[k + 3]),
      relativeDir: text.slice(n[k + 4], n[k + 4] + n[k + 5]),
      relativePath: text.slice(n[k + 6], n[k + 6] + n[k + 7]),
      dirPath: dirPath,
      isFile: (flags & 1) !== 0,
      hidden: (flags & 2) !== 0,
      isSystem: (flags & 4) !== 0,
      size: n[k + 9],
      ino: n[k + 10],
      ctimeMs: n[k + 11],
      mtimeMs: n[k + 12],
      birthtimeMs: n[k + 13],
      readable: (flags & 8) !== 0,
    };
    if (i < fileCount) nodes[i] = o; else dirs[i - fileCount] = o;
  }
  return { nodes, dirs };
}))JS";
static_assert(fields_per_record == 14);

napi_value string_value(napi_env env, const std::string& s) {
  napi_value v;
  napi_check(env, napi_create_string_utf8(env, s.data(), s.size(), &v));
  return v;
}

napi_value number_value(napi_env env, double d) {
  napi_value v;
  napi_check(env, napi_create_double(env, d, &v));
  return v;
}

napi_value bool_value(napi_env env, bool b) {
  napi_value v;
  napi_check(env, napi_get_boolean(env, b, &v));
  return v;
}

}  // namespace

napi_value file_info_to_object(napi_env env, const FileInfo& info, napi_value dir_path) {
  napi_value object;
  napi_check(env, napi_create_object(env, &object));
  auto prop = [](const char* name, napi_value value) {
    return napi_property_descriptor{name, nullptr, nullptr, nullptr, nullptr, value, napi_default_jsproperty, nullptr};
  };
  const napi_property_descriptor props[] = {
      prop("absolutePath", string_value(env, info.absolutePath)),
      prop("name", string_value(env, info.name)),
      prop("relativeDir", string_value(env, info.relativeDir)),
      prop("relativePath", string_value(env, info.relativePath)),
      prop("dirPath", dir_path),
      prop("isFile", bool_value(env, info.isFile)),
      prop("hidden", bool_value(env, info.hidden)),
      prop("isSystem", bool_value(env, info.isSystem)),
      prop("size", number_value(env, static_cast<double>(static_cast<std::int64_t>(info.size)))),
      prop("ino", number_value(env, static_cast<double>(static_cast<std::int64_t>(info.ino)))),
      prop("ctimeMs", number_value(env, info.ctimeMs)),
      prop("mtimeMs", number_value(env, info.mtimeMs)),
      prop("birthtimeMs", number_value(env, info.birthtimeMs)),
      prop("readable", bool_value(env, info.readable)),
  };
  napi_check(env, napi_define_properties(env, object, sizeof props / sizeof props[0], props));
  return object;
}

file_object_factory::file_object_factory(napi_env env) : env_(env) {
  napi_value source, function;
  napi_check(env, napi_create_string_utf8(env, factory_source, NAPI_AUTO_LENGTH, &source));
  napi_check(env, napi_run_script(env, source, &function));
  function_ = script_ref(env, function);
}

napi_value file_object_factory::make_update(const encoded_batch& batch, napi_value dir_path) const {
  napi_env env = env_;
  napi_value narrow, wide;
  napi_check(env, napi_create_string_latin1(env, batch.text8.data(), batch.text8.size(), &narrow));
  napi_check(env, napi_create_string_utf16(env, batch.text16.data(), batch.text16.size(), &wide));
  void* data = nullptr;
  napi_value buffer, numbers;
  std::size_t bytes = batch.numbers.size() * sizeof(double);
  napi_check(env, napi_create_arraybuffer(env, bytes, &data, &buffer));
  if (bytes) std::memcpy(data, batch.numbers.data(), bytes);
  napi_check(env, napi_create_typedarray(env, napi_float64_array, batch.numbers.size(), buffer, 0, &numbers));
  napi_value file_count, total;
  napi_check(env, napi_create_double(env, static_cast<double>(batch.file_count), &file_count));
  napi_check(env, napi_create_double(env, static_cast<double>(batch.record_count), &total));

  napi_value function = function_.value(), undefined, result;
  napi_check(env, napi_get_undefined(env, &undefined));
  napi_value args[] = {narrow, wide, numbers, file_count, total, dir_path};
  napi_check(env, napi_call_function(env, undefined, function, 6, args, &result));
  return result;
}

}  // namespace ostrel::scan
