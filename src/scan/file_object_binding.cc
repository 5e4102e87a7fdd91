#include "file_object_binding.h"

#include <cstdint>
#include <cstring>
#include <string_view>

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
    const text = ((flags & 16) !== 0 ? wide : narrow)[flags >>> 5];
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

napi_value string_value(napi_env env, std::string_view s) {
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
      prop("name", string_value(env, info.name_text())),
      prop("relativeDir", string_value(env, info.relative_dir_text())),
      prop("relativePath", string_value(env, info.relative_path_text())),
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

namespace {
// The pieces of one text as an array of strings.
template <typename Text, typename Make>
napi_value text_pieces(napi_env env, const Text& text, const std::vector<std::size_t>& starts, Make make) {
  napi_value array;
  napi_check(env, napi_create_array_with_length(env, starts.size(), &array));
  for (std::size_t i = 0; i < starts.size(); ++i) {
    std::size_t end = i + 1 < starts.size() ? starts[i + 1] : text.size();
    napi_value piece;
    napi_check(env, make(env, text.data() + starts[i], end - starts[i], &piece));
    napi_check(env, napi_set_element(env, array, static_cast<std::uint32_t>(i), piece));
  }
  return array;
}
}  // namespace

napi_value file_object_factory::numbers_for(std::size_t count) const {
  napi_env env = env_;
  if (numbers_ && count <= numbers_capacity_) return numbers_.value();
  std::size_t capacity = count < 1024 ? 1024 : count;
  void* data = nullptr;
  napi_value buffer, numbers;
  napi_check(env, napi_create_arraybuffer(env, capacity * sizeof(double), &data, &buffer));
  napi_check(env, napi_create_typedarray(env, napi_float64_array, capacity, buffer, 0, &numbers));
  numbers_ = script_ref(env, numbers);
  numbers_capacity_ = capacity;
  return numbers;
}

napi_value file_object_factory::make_update(const encoded_batch& batch, napi_value dir_path) const {
  napi_env env = env_;
  napi_value narrow = text_pieces(env, batch.text8, batch.pieces8, napi_create_string_latin1);
  napi_value wide = text_pieces(env, batch.text16, batch.pieces16, napi_create_string_utf16);
  // One array of numbers serves every update of the scan: the function reads
  // it before returning and keeps no reference to it.
  napi_value numbers = numbers_for(batch.numbers.size());
  void* data = nullptr;
  napi_check(env, napi_get_typedarray_info(env, numbers, nullptr, nullptr, &data, nullptr, nullptr));
  if (!batch.numbers.empty()) std::memcpy(data, batch.numbers.data(), batch.numbers.size() * sizeof(double));
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
