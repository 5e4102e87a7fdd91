// The scan's filter settings, read from the options object, and the
// per-file tests built on them. The watcher uses the same rule test.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "name_regex.h"
#include "native_path.h"

namespace ostrel::scan {

struct ExtFilter {
  bool present = false;         // extFilter was an object
  bool excludes_given = false;  // excludes was an array, even an empty one
  std::vector<native_string> includes;
  std::vector<native_string> excludes;
};

// An element of a rule's omits or covers.
struct MatchEntry {
  std::string fileNameReg;             // matched against the stem
  std::vector<native_string> extList;  // without the dot, kept as given
};

struct ScanRule {
  std::vector<std::string> relativeDirPathRegList;  // one per folder level
  std::vector<MatchEntry> omits;
  std::vector<MatchEntry> covers;
  ExtFilter extFilter;  // the rule's own; replaces the scan-level one when present

  // Compiled forms, built by compile() (or by the options reader) before
  // any thread reads the rule; the tests below only read them.
  std::vector<name_regex> dir_regs;
  std::vector<name_regex> omit_regs;
  std::vector<name_regex> cover_regs;
  // Compiles every list whose compiled form is out of date. Throws
  // invalid_pattern.
  void compile();
  bool compiled() const noexcept;
};

struct ScanFilters {
  std::vector<native_string> leaveDirs;
  std::vector<native_string> leaveFiles;
  ExtFilter extFilter;
  std::vector<std::string> ignoreFileRegs;
  std::vector<std::string> ignoreDirRegs;
  bool returnEmptyFolder = false;
  bool formatMsToSecond = false;
  bool needDirs = false;
  // Metadata from the directory listing instead of a query per entry.
  bool fastMetadata = false;
  // Threads that query metadata beside the walking one (not an option of
  // script: chosen from the machine's cores).
  unsigned metadata_helpers = 0;
  std::vector<ScanRule> rules;

  std::vector<name_regex> ignore_file_regs;
  std::vector<name_regex> ignore_dir_regs;
  // Compiles every list whose compiled form is out of date, the rules'
  // included. Throws invalid_pattern. Called once, on the main thread,
  // before the filters are shared: the walk's threads and the watcher's
  // loops read them at once, so the tests below never compile.
  void compile();
  // Every compiled form matches its sources.
  bool compiled() const noexcept;
  bool fine_grained() const noexcept { return !rules.empty(); }
};

// A file name split as the file-system library splits it: the extension
// runs from the last '.', unless that dot is the name's first character
// (".gitignore" has none); the stem is the rest.
struct NameParts {
  native_string_view stem;  // a view into the name given to split_name
  native_string ext;        // lower-cased, without its dot; empty when there is none
};
NameParts split_name(native_string_view file_name);

// ASCII letters lower-cased, one character at a time.
native_string lower_ascii(native_string_view text);

// The file name of a path: its last component.
native_string_view file_name_of(native_string_view path);

// The tests read compiled filters only; filters whose compiled forms do not
// match their sources (compile() was not called after a change) make them
// throw std::logic_error rather than compile on whichever thread comes first.

// True when an ignoreFileRegs expression fully matches the file's name.
bool ignoreFile(const ScanFilters& scan, native_string_view path);
// True when `filter` rejects the file for its extension.
bool extFiltered(const ExtFilter& filter, native_string_view path);
// The omit/cover test of one rule.
bool ruleRejects(const ScanRule& rule, native_string_view path);
// The combined test of fine-grained mode; false outside it.
bool fileRejected(const ScanFilters& scan, native_string_view path, const ScanRule* rule);

// The test the walk applies to every file it produces: fileRejected in
// fine-grained mode; otherwise ignoreFileRegs and the scan-level extFilter.
bool walkFileRejected(const ScanFilters& scan, native_string_view path, const ScanRule* rule);
// True when an ignoreDirRegs expression fully matches the folder's name.
bool ignoreDir(const ScanFilters& scan, native_string_view name);

}  // namespace ostrel::scan
