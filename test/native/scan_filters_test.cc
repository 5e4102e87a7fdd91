// The scan's filter tests: extension filters with their scan-level and
// rule-level cases, omits and covers, name-ignore expressions and how a
// name splits into stem and extension.
#include <gtest/gtest.h>

#include <memory>

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
  // The stem is a view into the name: keep the names alive.
  auto parts = [](const char* name) {
    static std::vector<std::unique_ptr<native_string>> names;
    names.push_back(std::make_unique<native_string>(N(name)));
    return split_name(*names.back());
  };
  NameParts a = parts("archive.tar.gz");
  EXPECT_EQ(a.stem, N("archive.tar"));
  EXPECT_EQ(a.ext, N("gz"));
  NameParts g = parts(".gitignore");
  EXPECT_EQ(g.stem, N(".gitignore"));
  EXPECT_EQ(g.ext, N(""));
  EXPECT_EQ(parts("README").ext, N(""));
  EXPECT_EQ(parts("b.JPG").ext, N("jpg"));
  EXPECT_EQ(parts("..").stem, N(".."));
  EXPECT_EQ(parts("trailing.").stem, N("trailing"));
  EXPECT_EQ(parts("trailing.").ext, N(""));
  EXPECT_EQ(parts("..hidden").ext, N("hidden"));
}

TEST(ScanFilters, ExtensionFilterPresenceAndLists) {
  ExtFilter absent;
  EXPECT_FALSE(extFiltered(absent, N("a.jpg")));
  // An extFilter with neither list rejects every file...
  ExtFilter neither = filter({}, {}, false, true);
  EXPECT_TRUE(extFiltered(neither, N("a.jpg")));
  EXPECT_TRUE(extFiltered(neither, N("README")));
  // ...one whose excludes is an empty array rejects none.
  ExtFilter empty_excludes = filter({"jpg"}, {}, true, true);
  EXPECT_FALSE(extFiltered(empty_excludes, N("a.txt")));
  EXPECT_FALSE(extFiltered(empty_excludes, N("README")));
  // Excludes win over includes once given.
  ExtFilter both = filter({"jpg"}, {"jpg"}, true, true);
  EXPECT_TRUE(extFiltered(both, N("a.jpg")));
}

TEST(ScanFilters, EmptyEntriesStandForFilesWithoutExtension) {
  ExtFilter ex = filter({}, {""}, true, true);
  EXPECT_TRUE(extFiltered(ex, N("README")));
  EXPECT_TRUE(extFiltered(ex, N(".gitignore")));
  EXPECT_FALSE(extFiltered(ex, N("a.txt")));
  ExtFilter in = filter({""}, {}, false, true);
  EXPECT_FALSE(extFiltered(in, N("README")));
  EXPECT_TRUE(extFiltered(in, N("a.txt")));
}

TEST(ScanFilters, ScanLevelListsAreLowerCasedRuleLevelListsAreNot) {
  ExtFilter scan_level = filter({"JPG"}, {}, false, true);
  EXPECT_FALSE(extFiltered(scan_level, N("a.jpg")));
  EXPECT_FALSE(extFiltered(scan_level, N("b.JPG")));
  ExtFilter rule_level = filter({"JPG"}, {}, false, false);
  EXPECT_TRUE(extFiltered(rule_level, N("a.jpg")));
  EXPECT_TRUE(extFiltered(rule_level, N("b.JPG")));
}

TEST(ScanFilters, OmitBeatsCover) {
  ScanRule rule;
  rule.omits.push_back(entry(".*", {}));
  rule.covers.push_back(entry("IMG_\\d+", {"jpg"}));
  EXPECT_TRUE(ruleRejects(rule, N("IMG_12.jpg")));
  EXPECT_TRUE(ruleRejects(rule, N("anything")));
}

TEST(ScanFilters, CoversFullMatchTheStemCaseSensitively) {
  ScanRule rule;
  rule.covers.push_back(entry("IMG_\\d+", {"jpg"}));
  EXPECT_FALSE(ruleRejects(rule, N("IMG_12.jpg")));
  EXPECT_FALSE(ruleRejects(rule, N("IMG_12.JPG")));  // the file's extension is lower-cased
  EXPECT_TRUE(ruleRejects(rule, N("IMG_12a.jpg")));  // full match
  EXPECT_TRUE(ruleRejects(rule, N("img_12.jpg")));   // case
  EXPECT_TRUE(ruleRejects(rule, N("IMG_12.png")));   // extension not listed
  ScanRule upper;
  upper.covers.push_back(entry("IMG_\\d+", {"JPG"}));  // kept as given: never matches
  EXPECT_TRUE(ruleRejects(upper, N("IMG_12.JPG")));
}

TEST(ScanFilters, OmitsWithExtensionListsAndRulesWithoutCovers) {
  ScanRule rule;
  rule.omits.push_back(entry("draft.*", {"tmp", ""}));
  EXPECT_TRUE(ruleRejects(rule, N("draft1.tmp")));
  EXPECT_TRUE(ruleRejects(rule, N("draft1")));
  EXPECT_FALSE(ruleRejects(rule, N("draft1.txt")));
  EXPECT_FALSE(ruleRejects(rule, N("final.tmp")));
}

TEST(ScanFilters, IgnoreFileMatchesTheWholeName) {
  ScanFilters scan;
  scan.ignoreFileRegs = {"~\\$.*"};
  EXPECT_TRUE(ignoreFile(scan, N("~$report.docx")));
  EXPECT_FALSE(ignoreFile(scan, N("a~$report.docx")));
  scan.ignoreFileRegs.push_back("report");           // compiled again: the count changed
  EXPECT_FALSE(ignoreFile(scan, N("report.docx")));  // the whole name, extension included
  scan.ignoreFileRegs.push_back("report\\.docx");
  EXPECT_TRUE(ignoreFile(scan, N("dir") + native_string(1, native_separator) + N("report.docx")));
}

TEST(ScanFilters, FileRejectedOnlyInFineGrainedModeAndInItsOrder) {
  ScanFilters scan;
  scan.extFilter = filter({"txt"}, {}, false, true);
  scan.ignoreFileRegs = {"skip.*"};
  EXPECT_FALSE(fileRejected(scan, N("a.jpg"), nullptr));  // not fine-grained
  // The walk's own test applies the scan-level filters outside that mode.
  EXPECT_TRUE(walkFileRejected(scan, N("a.jpg"), nullptr));
  EXPECT_TRUE(walkFileRejected(scan, N("skip.txt"), nullptr));
  EXPECT_FALSE(walkFileRejected(scan, N("a.txt"), nullptr));

  scan.rules.emplace_back();
  ScanRule& rule = scan.rules.back();
  rule.covers.push_back(entry("a", {}));
  EXPECT_TRUE(fileRejected(scan, N("skip.txt"), &rule));  // ignoreFileRegs first
  EXPECT_TRUE(fileRejected(scan, N("a.jpg"), &rule));     // scan-level filter
  EXPECT_FALSE(fileRejected(scan, N("a.txt"), &rule));
  EXPECT_TRUE(fileRejected(scan, N("b.txt"), &rule));  // the cover does not take it
  rule.extFilter = filter({"jpg"}, {}, false, false);  // replaces the scan-level one
  EXPECT_FALSE(fileRejected(scan, N("a.jpg"), &rule));
  EXPECT_TRUE(fileRejected(scan, N("a.txt"), &rule));
}

TEST(ScanFilters, InvalidExpressionsFailToCompileWithTheirSource) {
  ScanFilters scan;
  scan.ignoreDirRegs = {"ok", "(unclosed"};
  try {
    scan.compile();
    FAIL() << "compiled";
  } catch (const invalid_pattern& e) {
    EXPECT_NE(std::string(e.what()).find("\"(unclosed\""), std::string::npos) << e.what();
  }
}

}  // namespace
}  // namespace ostrel::scan
