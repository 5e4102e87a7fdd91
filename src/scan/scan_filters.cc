#include "scan_filters.h"

#include <algorithm>
#include <stdexcept>

namespace ostrel::scan {

namespace {

// Recompiles `compiled` from `sources` when their counts differ.
void compile_list(const std::vector<std::string>& sources, std::vector<name_regex>& compiled) {
  if (compiled.size() == sources.size()) return;
  std::vector<name_regex> fresh;
  fresh.reserve(sources.size());
  for (const auto& s : sources) fresh.emplace_back(s);
  compiled = std::move(fresh);
}

void compile_entries(const std::vector<MatchEntry>& entries, std::vector<name_regex>& compiled) {
  if (compiled.size() == entries.size()) return;
  std::vector<name_regex> fresh;
  fresh.reserve(entries.size());
  for (const auto& e : entries) fresh.emplace_back(e.fileNameReg);
  compiled = std::move(fresh);
}

bool contains(const std::vector<native_string>& list, native_string_view value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

// A compiled list out of step with its sources is a bug of the caller: say
// so instead of matching against a stale list.
void require_compiled(bool ok) {
  if (!ok) throw std::logic_error("scan filters used before they were compiled");
}

bool any_full_match(const std::vector<name_regex>& regs, native_string_view subject) {
  for (const auto& r : regs) {
    if (r.full_match(subject)) return true;
  }
  return false;
}

// An entry takes the file when its expression fully matches the stem and its
// extension list is empty or holds the extension.
bool entry_takes(const MatchEntry& entry, const name_regex& reg, const NameParts& parts) {
  if (!reg.full_match(parts.stem)) return false;
  return entry.extList.empty() || contains(entry.extList, parts.ext);
}

}  // namespace

void ScanRule::compile() {
  compile_list(relativeDirPathRegList, dir_regs);
  compile_entries(omits, omit_regs);
  compile_entries(covers, cover_regs);
}

bool ScanRule::compiled() const noexcept {
  return dir_regs.size() == relativeDirPathRegList.size() && omit_regs.size() == omits.size() &&
         cover_regs.size() == covers.size();
}

void ScanFilters::compile() {
  compile_list(ignoreFileRegs, ignore_file_regs);
  compile_list(ignoreDirRegs, ignore_dir_regs);
  for (auto& rule : rules) rule.compile();
}

bool ScanFilters::compiled() const noexcept {
  if (ignore_file_regs.size() != ignoreFileRegs.size() || ignore_dir_regs.size() != ignoreDirRegs.size()) {
    return false;
  }
  return std::all_of(rules.begin(), rules.end(), [](const ScanRule& r) { return r.compiled(); });
}

native_string lower_ascii(native_string_view text) {
  native_string out(text);
  for (auto& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<native_char>(c - 'A' + 'a');
  }
  return out;
}

native_string_view file_name_of(native_string_view path) {
#ifdef _WIN32
  std::size_t cut = path.find_last_of(L"/\\");
#else
  std::size_t cut = path.find_last_of('/');
#endif
  return cut == native_string_view::npos ? path : path.substr(cut + 1);
}

NameParts split_name(native_string_view name) {
  NameParts parts;
  std::size_t dot = name.rfind('.');
  bool has_ext = dot != native_string_view::npos && dot != 0 && name != OSTREL_NATIVE("..");
  if (!has_ext) {
    parts.stem = name;
    return parts;
  }
  parts.stem = name.substr(0, dot);
  parts.ext = lower_ascii(name.substr(dot + 1));
  return parts;
}

bool ignoreFile(const ScanFilters& scan, native_string_view path) {
  require_compiled(scan.ignore_file_regs.size() == scan.ignoreFileRegs.size());
  return any_full_match(scan.ignore_file_regs, file_name_of(path));
}

bool ignoreDir(const ScanFilters& scan, native_string_view name) {
  require_compiled(scan.ignore_dir_regs.size() == scan.ignoreDirRegs.size());
  return any_full_match(scan.ignore_dir_regs, name);
}

bool extFiltered(const ExtFilter& filter, native_string_view path) {
  if (!filter.present) return false;
  native_string e = split_name(file_name_of(path)).ext;
  if (filter.excludes_given) return contains(filter.excludes, e);
  return !contains(filter.includes, e);
}

bool ruleRejects(const ScanRule& rule, native_string_view path) {
  require_compiled(rule.compiled());
  NameParts parts = split_name(file_name_of(path));
  for (std::size_t i = 0; i < rule.omits.size(); ++i) {
    if (entry_takes(rule.omits[i], rule.omit_regs[i], parts)) return true;
  }
  if (rule.covers.empty()) return false;
  for (std::size_t i = 0; i < rule.covers.size(); ++i) {
    if (entry_takes(rule.covers[i], rule.cover_regs[i], parts)) return false;
  }
  return true;
}

bool fileRejected(const ScanFilters& scan, native_string_view path, const ScanRule* rule) {
  if (!scan.fine_grained() || rule == nullptr) return false;
  if (ignoreFile(scan, path)) return true;
  if (rule->extFilter.present) {
    if (extFiltered(rule->extFilter, path)) return true;
  } else if (extFiltered(scan.extFilter, path)) {
    return true;
  }
  return ruleRejects(*rule, path);
}

bool walkFileRejected(const ScanFilters& scan, native_string_view path, const ScanRule* rule) {
  if (scan.fine_grained()) return fileRejected(scan, path, rule);
  return ignoreFile(scan, path) || extFiltered(scan.extFilter, path);
}

}  // namespace ostrel::scan
