#include "scan_options_binding.h"

#include <string>

namespace ostrel::scan {

namespace {

// The value of `key` when `options` has it and it passes `check`.
template <typename Check>
bool get_if(Napi::Object options, const char* key, Check check, Napi::Value& out) {
  if (!options.Has(key)) return false;
  Napi::Value v = options.Get(key);
  if (!check(v)) return false;
  out = v;
  return true;
}

bool is_array(const Napi::Value& v) {
  return v.IsArray();
}
bool is_object(const Napi::Value& v) {
  return v.IsObject();
}
bool is_boolean(const Napi::Value& v) {
  return v.IsBoolean();
}
bool is_string(const Napi::Value& v) {
  return v.IsString();
}

// The string elements of an array, in order; others are skipped.
std::vector<std::string> string_elements(Napi::Value value) {
  std::vector<std::string> out;
  Napi::Array array = value.As<Napi::Array>();
  uint32_t n = array.Length();
  out.reserve(n);
  for (uint32_t i = 0; i < n; ++i) {
    Napi::Value e = array.Get(i);
    if (e.IsString()) out.push_back(e.As<Napi::String>().Utf8Value());
  }
  return out;
}

std::vector<native_string> native_elements(Napi::Value value, bool lower) {
  std::vector<native_string> out;
  for (const auto& s : string_elements(value)) {
    native_string n = utf8_to_native(s);
    out.push_back(lower ? lower_ascii(n) : std::move(n));
  }
  return out;
}

bool read_bool(Napi::Object options, const char* key) {
  Napi::Value v;
  return get_if(options, key, is_boolean, v) && v.As<Napi::Boolean>().Value();
}

// Compiles one expression, naming where it came from when it fails.
// The export whose options are being read, for the error messages.
thread_local const char* reading_for = "ScanAllSubFiles";

name_regex compile_named(Napi::Env env, const std::string& source, const std::string& where) {
  try {
    return name_regex(source);
  } catch (const invalid_pattern& e) {
    throw Napi::Error::New(env, std::string(reading_for) + ": " + std::string(e.what()) + " in " + where);
  }
}

std::vector<name_regex> compile_all(Napi::Env env, const std::vector<std::string>& sources, const std::string& where) {
  std::vector<name_regex> out;
  out.reserve(sources.size());
  for (std::size_t i = 0; i < sources.size(); ++i) {
    out.push_back(compile_named(env, sources[i], where + "[" + std::to_string(i) + "]"));
  }
  return out;
}

ExtFilter read_ext_filter(Napi::Value value, bool lower) {
  ExtFilter filter;
  if (!value.IsObject()) return filter;
  Napi::Object object = value.As<Napi::Object>();
  filter.present = true;
  Napi::Value list;
  if (get_if(object, "includes", is_array, list)) filter.includes = native_elements(list, lower);
  if (get_if(object, "excludes", is_array, list)) {
    filter.excludes_given = true;
    filter.excludes = native_elements(list, lower);
  }
  return filter;
}

// The entries of an omits or covers array that have a string fileNameReg and
// an array extList.
std::vector<MatchEntry> read_entries(Napi::Env env, Napi::Value value, const std::string& where,
                                     std::vector<name_regex>& compiled) {
  std::vector<MatchEntry> out;
  Napi::Array array = value.As<Napi::Array>();
  for (uint32_t i = 0; i < array.Length(); ++i) {
    Napi::Value e = array.Get(i);
    if (!e.IsObject()) continue;
    Napi::Object entry = e.As<Napi::Object>();
    Napi::Value reg, exts;
    if (!get_if(entry, "fileNameReg", is_string, reg) || !get_if(entry, "extList", is_array, exts)) continue;
    MatchEntry m;
    m.fileNameReg = reg.As<Napi::String>().Utf8Value();
    m.extList = native_elements(exts, false);
    compiled.push_back(compile_named(env, m.fileNameReg, where + "[" + std::to_string(i) + "].fileNameReg"));
    out.push_back(std::move(m));
  }
  return out;
}

void read_rules(Napi::Env env, Napi::Value value, std::vector<ScanRule>& rules) {
  Napi::Array array = value.As<Napi::Array>();
  for (uint32_t i = 0; i < array.Length(); ++i) {
    Napi::Value e = array.Get(i);
    if (!e.IsObject()) continue;
    Napi::Object object = e.As<Napi::Object>();
    Napi::Value dirs, omits, covers;
    if (!get_if(object, "relativeDirPathRegList", is_array, dirs) || !get_if(object, "omits", is_array, omits) ||
        !get_if(object, "covers", is_array, covers)) {
      continue;
    }
    std::string where = "fineGrainedDirs[" + std::to_string(i) + "]";
    ScanRule rule;
    rule.relativeDirPathRegList = string_elements(dirs);
    rule.dir_regs = compile_all(env, rule.relativeDirPathRegList, where + ".relativeDirPathRegList");
    rule.omits = read_entries(env, omits, where + ".omits", rule.omit_regs);
    rule.covers = read_entries(env, covers, where + ".covers", rule.cover_regs);
    Napi::Value ext;
    if (get_if(object, "extFilter", is_object, ext)) rule.extFilter = read_ext_filter(ext, false);
    rules.push_back(std::move(rule));
  }
}

}  // namespace

void read_scan_options(Napi::Env env, Napi::Object options, ScanFilters& filters) {
  reading_for = "ScanAllSubFiles";
  Napi::Value v;
  if (get_if(options, "fineGrainedDirs", is_array, v)) read_rules(env, v, filters.rules);
  if (get_if(options, "leaveDirs", is_array, v)) filters.leaveDirs = native_elements(v, false);
  if (get_if(options, "leaveFiles", is_array, v)) filters.leaveFiles = native_elements(v, false);
  if (get_if(options, "extFilter", is_object, v)) filters.extFilter = read_ext_filter(v, true);
  if (get_if(options, "ignoreFileRegs", is_array, v)) {
    filters.ignoreFileRegs = string_elements(v);
    filters.ignore_file_regs = compile_all(env, filters.ignoreFileRegs, "ignoreFileRegs");
  }
  if (get_if(options, "ignoreDirRegs", is_array, v)) {
    filters.ignoreDirRegs = string_elements(v);
    filters.ignore_dir_regs = compile_all(env, filters.ignoreDirRegs, "ignoreDirRegs");
  }
  filters.returnEmptyFolder = read_bool(options, "returnEmptyFolder");
  filters.formatMsToSecond = read_bool(options, "formatMsToSecond");
  filters.needDirs = read_bool(options, "needDirs");
  filters.fastMetadata = read_bool(options, "fastMetadata");
  filters.compile();  // every list is compiled above; the walk's threads only read them
}

void read_watch_options(Napi::Env env, Napi::Object options, ScanFilters& filters,
                        std::vector<native_string>& watch_targets) {
  reading_for = "StartFileWatch";
  Napi::Value v;
  if (get_if(options, "fineGrainedDirs", is_array, v)) read_rules(env, v, filters.rules);
  if (get_if(options, "extFilter", is_object, v)) filters.extFilter = read_ext_filter(v, true);
  if (get_if(options, "ignoreDirRegs", is_array, v)) {
    filters.ignoreDirRegs = string_elements(v);
    filters.ignore_dir_regs = compile_all(env, filters.ignoreDirRegs, "ignoreDirRegs");
  }
  if (get_if(options, "watchTargets", is_array, v)) watch_targets = native_elements(v, false);
  // extFilter is read a second time, as the options have always been read.
  if (get_if(options, "extFilter", is_object, v)) filters.extFilter = read_ext_filter(v, true);
  filters.compile();  // every list is compiled above; the watch loops only read them
  reading_for = "ScanAllSubFiles";
}

}  // namespace ostrel::scan
