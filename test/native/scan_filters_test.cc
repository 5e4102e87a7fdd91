// The scan's filter tests: extension filters with their scan-level and
// rule-level cases, omits and covers, name-ignore expressions and how a
// name splits into stem and extension.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "scan/scan_filters.h"

namespace ostrel::scan {
namespace {

native_string N(const char* utf8) {
  return utf8_to_native(utf8);
}

ExtFilter filter(std::vector<const char*> includes, std::vector<const char*> excludes, bool excludes_given,
                 bool scan_level) {
  ExtFilter f;
  f.present = true;
  f.excludes_given = excludes_given;
  for (auto* s : includes) f.includes.push_back(scan_level ? lower_ascii(N(s)) : N(s));
  for (auto* s : excludes) f.excludes.push_back(scan_level ? lower_ascii(N(s)) : N(s));
  return f;
}

MatchEntry entry(const char* reg, std::vector<const char*> exts) {
  MatchEntry e;
  e.fileNameReg = reg;
  for (auto* s : exts) e.extList.push_back(N(s));
  return e;
}

TEST(ScanFilters, NamesSplitLikeTheFileSystemLibrary) {
  const char* rows[][3] = {{"archive.tar.gz", "archive.tar", "gz"},
                           {".gitignore", ".gitignore", ""},
                           {"README", "README", ""},
                           {"b.JPG", "b", "jpg"},
                           {"..", "..", ""},
                           {"trailing.", "trailing", ""},
                           {"..hidden", ".", "hidden"}};
  for (auto& [name, stem, ext] : rows) {
    native_string n = N(name);  // the stem is a view into the name
    NameParts parts = split_name(n);
    EXPECT_EQ(parts.stem, N(stem)) << name;
    EXPECT_EQ(parts.ext, N(ext)) << name;
  }
}

// No lists, an empty excludes list or entry, and each level's case: the
// options table of scan-filters.test.js.
TEST(ScanFilters, ExtensionFilters) {
  EXPECT_FALSE(extFiltered(ExtFilter{}, N("a.jpg")));  // no filter given
  struct row {
    std::vector<const char*> includes, excludes;
    const char* name;
    bool rejected;
  };
  const row rows[] = {
      {{"jpg"}, {"jpg"}, "a.jpg", true},  // excludes, once given, win
      {{""}, {}, "README", false},        // "": files without extension
      {{""}, {}, "a.txt", true},
  };
  for (const row& r : rows) {
    EXPECT_EQ(extFiltered(filter(r.includes, r.excludes, !r.excludes.empty(), true), N(r.name)), r.rejected)
        << r.name << " in row " << &r - rows;
  }
}

// Omits and covers: each entry full-matches the stem, case-sensitively,
// against the file's lower-cased extension (an omit beats a cover:
// scan-filters.test.js).
TEST(ScanFilters, OmitsAndCovers) {
  struct row {
    std::vector<MatchEntry> omits, covers;
    const char* name;
    bool rejected;
  };
  const row rows[] = {
      {{}, {entry("IMG_\\d+", {"jpg"})}, "IMG_12.jpg", false},
      {{}, {entry("IMG_\\d+", {"jpg"})}, "IMG_12.JPG", false},    // the file's extension is lower-cased
      {{}, {entry("IMG_\\d+", {"jpg"})}, "IMG_12a.jpg", true},    // full match
      {{}, {entry("IMG_\\d+", {"jpg"})}, "img_12.jpg", true},     // case
      {{}, {entry("IMG_\\d+", {"jpg"})}, "IMG_12.png", true},     // extension not listed
      {{}, {entry("IMG_\\d+", {"JPG"})}, "IMG_12.JPG", true},     // kept as given: never matches
      {{entry("draft.*", {"tmp", ""})}, {}, "draft1.tmp", true},  // no covers: omits alone decide
      {{entry("draft.*", {"tmp", ""})}, {}, "draft1", true},
      {{entry("draft.*", {"tmp", ""})}, {}, "draft1.txt", false},
      {{entry("draft.*", {"tmp", ""})}, {}, "final.tmp", false},
  };
  for (const row& r : rows) {
    ScanRule rule;
    rule.omits = r.omits;
    rule.covers = r.covers;
    rule.compile();
    EXPECT_EQ(ruleRejects(rule, N(r.name)), r.rejected) << r.name << " in row " << &r - rows;
  }
}

TEST(ScanFilters, IgnoreFileMatchesTheWholeName) {
  ScanFilters scan;
  scan.ignoreFileRegs = {"~\\$.*"};
  scan.compile();
  EXPECT_TRUE(ignoreFile(scan, N("~$report.docx")));
  EXPECT_FALSE(ignoreFile(scan, N("a~$report.docx")));
  scan.ignoreFileRegs.push_back("report");
  scan.compile();                                    // compiled again: the count changed
  EXPECT_FALSE(ignoreFile(scan, N("report.docx")));  // the whole name, extension included
  scan.ignoreFileRegs.push_back("report\\.docx");
  scan.compile();
  EXPECT_TRUE(ignoreFile(scan, N("dir") + native_string(1, native_separator) + N("report.docx")));
}

TEST(ScanFilters, FileRejectedOnlyInFineGrainedModeAndInItsOrder) {
  ScanFilters scan;
  scan.extFilter = filter({"txt"}, {}, false, true);
  scan.ignoreFileRegs = {"skip.*"};
  scan.compile();
  EXPECT_FALSE(fileRejected(scan, N("a.jpg"), nullptr));  // not fine-grained
  // The walk's own test applies the scan-level filters outside that mode.
  EXPECT_TRUE(walkFileRejected(scan, N("a.jpg"), nullptr));
  EXPECT_TRUE(walkFileRejected(scan, N("skip.txt"), nullptr));
  EXPECT_FALSE(walkFileRejected(scan, N("a.txt"), nullptr));

  scan.rules.emplace_back();
  ScanRule& rule = scan.rules.back();
  rule.covers.push_back(entry("a", {}));
  scan.compile();
  EXPECT_TRUE(fileRejected(scan, N("skip.txt"), &rule));  // ignoreFileRegs first
  EXPECT_TRUE(fileRejected(scan, N("a.jpg"), &rule));     // scan-level filter
  EXPECT_FALSE(fileRejected(scan, N("a.txt"), &rule));
  EXPECT_TRUE(fileRejected(scan, N("b.txt"), &rule));  // the cover does not take it
  rule.extFilter = filter({"jpg"}, {}, false, false);  // replaces the scan-level one
  EXPECT_FALSE(fileRejected(scan, N("a.jpg"), &rule));
  EXPECT_TRUE(fileRejected(scan, N("a.txt"), &rule));
}

// The walk's threads and the watcher's loops share one filter set and only
// read it: the tests take it const and never compile. A set changed after
// compile() is refused with an error, where the tests used to compile it
// lazily on whichever thread came first while others read the lists.
TEST(ScanFilters, TestsReadCompiledFiltersOnlyAndRefuseStaleOnes) {
  static_assert(std::is_invocable_r_v<bool, decltype(&walkFileRejected), const ScanFilters&, native_string_view,
                                      const ScanRule*>);
  static_assert(std::is_invocable_r_v<bool, decltype(&ignoreDir), const ScanFilters&, native_string_view>);
  static_assert(std::is_invocable_r_v<bool, decltype(&ruleRejects), const ScanRule&, native_string_view>);
  ScanFilters stale;
  stale.ignoreFileRegs = {"skip.*"};
  stale.ignoreDirRegs = {"tmp"};
  EXPECT_THROW(ignoreFile(stale, N("skip.txt")), std::logic_error);
  EXPECT_THROW(ignoreDir(stale, N("tmp")), std::logic_error);
  ScanRule rule;
  rule.omits.push_back(entry("draft.*", {}));
  EXPECT_THROW(ruleRejects(rule, N("draft1.txt")), std::logic_error);

  // Compiled once, then read by four threads at once (the TSan build checks
  // that nothing is written meanwhile).
  ScanFilters shared;
  shared.ignoreFileRegs = {"skip.*", "~\\$.*"};
  shared.ignoreDirRegs = {"tmp", "cache\\d"};
  shared.rules.emplace_back();
  shared.rules.back().covers.push_back(entry("IMG_\\d+", {"jpg"}));
  shared.compile();
  ASSERT_TRUE(shared.compiled());
  const ScanFilters& view = shared;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        if (!walkFileRejected(view, N("skip.txt"), &view.rules[0])) ++wrong;
        if (walkFileRejected(view, N("IMG_12.jpg"), &view.rules[0])) ++wrong;
        if (!walkFileRejected(view, N("IMG_1a.jpg"), &view.rules[0])) ++wrong;
        if (!ignoreDir(view, N("cache7")) || ignoreDir(view, N("cache"))) ++wrong;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace ostrel::scan
