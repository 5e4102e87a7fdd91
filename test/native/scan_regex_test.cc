// Name filters: answers beyond the JS suite's reach, refusals, bounded
// stack and backtracking; the filters built on them.
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "runtime/strings.h"
#include "scan/name_regex.h"
#include "scan/scan_filters.h"

namespace ostrel::scan {
namespace {

using namespace std::string_view_literals;

struct match_case {
  const char* pattern;
  std::string_view name;  // UTF-8
  bool expected;
};

// Answers of `new RegExp("^(?:" + pattern + ")$").test(name)` in node on
// names the JS suite's generator does not make (control characters).
const match_case cases[] = {
    {"~\\$.*", "~$a\nb"sv, false},    {".*\\.tmp", "line\nbreak.tmp"sv, false},
    {"x.*.*y", "x\ny"sv, false},      {"foo|bar.*|.*baz", "x\nbaz"sv, false},
    {".*\\.tmp", "a\fb.tmp"sv, true}, {"[\\b]", "\b"sv, true},
    {"\\cA\\c1", "\1\\c1"sv, true},   {"\\0\\101\\8", "\0A8"sv, true},
    {"\\f\\v\\t", "\f\v\t"sv, true},  {".", "\0"sv, true},
    {"(a)\\2", "a\2"sv, true},
};

TEST(NameRegex, AnswersAsJavaScriptDoes) {
  // The first rows take the direct matcher (literals, lists and ".*").
  for (const auto& c : {cases[0], cases[1], cases[2], cases[3]})
    EXPECT_TRUE(name_regex(c.pattern).is_simple()) << c.pattern;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("pattern ") + c.pattern + " on \"" + std::string(c.name) + "\"");
    name_regex direct(c.pattern);
    name_regex engine(c.pattern, name_regex::path::engine_only);
    native_string name = utf8_to_native(c.name);
    EXPECT_EQ(direct.full_match(name), c.expected);
    EXPECT_EQ(engine.full_match(name), c.expected);
    EXPECT_EQ(engine.gave_up_count(), 0u);
  }
}

#ifndef _WIN32
// A Linux name that is not UTF-8 reads as U+FFFD on both matchers (the
// direct one compared raw bytes: found by fuzz_name_regex, this input).
TEST(NameRegex, InvalidUtf8NamesReadAsReplacementCharacters) {
  const char* found = "\xFF\xDA\xDA\x34";
  for (const char* p :
       {"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\x34", "\xEF\xBF\xBD.*", "x|\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\x34"}) {
    name_regex direct(p);
    ASSERT_TRUE(direct.is_simple()) << p;
    EXPECT_TRUE(direct.full_match(found)) << p;
    EXPECT_TRUE(name_regex(p, name_regex::path::engine_only).full_match(found)) << p;
  }
}
#endif

TEST(NameRegex, RefusedExpressionsNameThemselvesAndTheReason) {
  const std::pair<const char*, std::vector<const char*>> table[] = {
      {"Unterminated group", {"("}},
      {"Unmatched ')'", {"a)"}},
      {"Unterminated character class", {"[a-"}},
      {"Nothing to repeat", {"*x", "a**", "a*+", "^*", "(?<=a)*"}},
      {"numbers out of order", {"a{2,1}"}},
      {"Range out of order", {"[z-a]"}},
      {"\\ at end of pattern", {"\\"}},
      {"Invalid group", {"(?i)a", "(?>a)", "(?#note)"}},
      {"Invalid capture group name", {"(?<1a>x)"}},
      {"Duplicate capture group name", {"(?<a>x)(?<a>y)"}},
      {"Invalid named capture referenced", {"(?<a>x)\\k<b>"}},
      {"Invalid named reference", {"(?<a>x)\\k"}},
      {"lookbehind", {"(?<=a+)b"}},  // JavaScript takes it; Boost's look-behinds have a fixed length
  };
  for (const auto& [reason, patterns] : table) {
    for (const char* pattern : patterns) {
      try {
        name_regex r(pattern);
        ADD_FAILURE() << pattern << " compiled";
      } catch (const invalid_pattern& e) {
        std::string what = e.what();
        EXPECT_NE(what.find(std::string("\"") + pattern + "\""), std::string::npos) << what;
        EXPECT_NE(what.find(reason), std::string::npos) << what;
        EXPECT_EQ(what.find("HERE"), std::string::npos) << what;  // no quotation of the translated form
      }
    }
  }
}

// A 256 KiB stack must do for any expression (4 MiB for the sanitizers'
// and unoptimised frames).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(__OPTIMIZE__)
constexpr std::size_t small_stack = 4096 * 1024;
#else
constexpr std::size_t small_stack = 256 * 1024;
#endif

void on_small_stack(const std::function<void()>& body) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, small_stack), 0);
  auto entry = [](void* arg) -> void* {
    (*static_cast<const std::function<void()>*>(arg))();
    return nullptr;
  };
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attr, entry, const_cast<std::function<void()>*>(&body)), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
}

TEST(NameRegex, HugeExpressionsCompileOrAreRefusedWithinASmallStack) {
  on_small_stack([] {
    std::string literal(90000, 'a');
    for (auto how : {name_regex::path::automatic, name_regex::path::engine_only}) {
      name_regex r(literal, how);
      EXPECT_TRUE(r.full_match(utf8_to_native(literal)));
      EXPECT_FALSE(r.full_match(utf8_to_native(literal + "a")));
      EXPECT_FALSE(r.full_match(utf8_to_native("aaa")));
    }
    // Punctuation, which the translation writes as escapes.
    std::string dots;
    for (int i = 0; i < 45000; ++i) dots += "\\.";
    name_regex escaped(dots + "x");
    EXPECT_TRUE(escaped.full_match(utf8_to_native(std::string(45000, '.') + "x")));

    std::string nested = std::string(20000, '(') + "a" + std::string(20000, ')');
    try {
      name_regex r(nested);
      ADD_FAILURE() << "20,000 nested groups compiled";
    } catch (const invalid_pattern& e) {
      EXPECT_NE(std::string(e.what()).find("nested deeper than 256"), std::string::npos) << e.what();
      EXPECT_NE(std::string(e.what()).find("(40001 characters)"), std::string::npos) << e.what();
    }
    // The deepest nesting taken, with the matcher running through it.
    std::string deep;
    for (int i = 0; i < 255; ++i) deep += "(?:a|";
    deep += "b" + std::string(255, ')') + "+";
    name_regex r(deep);
    EXPECT_TRUE(r.full_match(utf8_to_native("bbbb")));
    EXPECT_TRUE(r.full_match(utf8_to_native("ab")));
    EXPECT_FALSE(r.full_match(utf8_to_native("c")));

    // A list long enough for the direct matcher's hash set, on both
    // matchers, and the same list grouped before a suffix (the engine).
    std::string list;
    for (int i = 0; i < 20000; ++i) list += (i ? "|n" : "n") + std::to_string(i);
    name_regex direct(list);
    name_regex engine(list, name_regex::path::engine_only);
    ASSERT_TRUE(direct.is_simple());
    for (auto [name, listed] : std::initializer_list<std::pair<const char*, bool>>{
             {"n0", true}, {"n19999", true}, {"n20000", false}, {"n", false}, {"n1x", false}}) {
      EXPECT_EQ(direct.full_match(utf8_to_native(name)), listed) << name;
      EXPECT_EQ(engine.full_match(utf8_to_native(name)), listed) << name;
    }
    name_regex grouped("(" + list + ")\\.txt");
    EXPECT_FALSE(grouped.is_simple());
    EXPECT_TRUE(grouped.full_match(utf8_to_native("n19999.txt")));
    EXPECT_FALSE(grouped.full_match(utf8_to_native("n20000.txt")));
    EXPECT_EQ(grouped.gave_up_count() + engine.gave_up_count(), 0u);

    // A long name against a backtracking expression: the matcher's state
    // lives on the heap.
    name_regex backtracking("(?:a|b)*c");
    EXPECT_FALSE(backtracking.full_match(utf8_to_native(std::string(255, 'a'))));
  });
}

// Through a scan (said once per expression, still answering):
// scan-regex.test.js; here what a scan does not show.
TEST(NameRegex, HopelessBacktrackingIsNoMatchReportedOnceByEveryCopy) {
  name_regex r("(a+)+$");
  const native_string hopeless = utf8_to_native(std::string(40, 'a') + "!");
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(r.full_match(hopeless));
  name_regex copy = r;
  EXPECT_FALSE(copy.full_match(hopeless + utf8_to_native("?")));
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(r.gave_up_count(), 2u);
  EXPECT_NE(err.find("name filter: the regular expression \"(a+)+$\" is too complex for \"" + std::string(40, 'a') +
                     "!\"; treated as no match"),
            std::string::npos)
      << err;
  EXPECT_EQ(err.find("!?"), std::string::npos) << "reported twice: " << err;
}

// The filters built on them: names split, extension lists, omits, covers.
native_string N(const char* utf8) {
  return utf8_to_native(utf8);
}

ExtFilter includes(const char* ext) {
  ExtFilter f;
  f.present = true;
  f.includes.push_back(N(ext));
  return f;
}

MatchEntry entry(const char* reg, std::vector<const char*> exts) {
  MatchEntry e;
  e.fileNameReg = reg;
  for (auto* s : exts) e.extList.push_back(N(s));
  return e;
}

TEST(ScanFilters, NamesSplitLikeTheFileSystemLibrary) {
  const char* rows[][3] = {
      {"b.JPG", "b", "jpg"}, {"..", "..", ""}, {"trailing.", "trailing", ""}, {"..hidden", ".", "hidden"}};
  for (auto& [name, stem, ext] : rows) {
    native_string n = N(name);  // the stem is a view into the name
    NameParts parts = split_name(n);
    EXPECT_EQ(parts.stem, N(stem)) << name;
    EXPECT_EQ(parts.ext, N(ext)) << name;
  }
}

// Each entry full-matches the stem, case-sensitively, and the file's
// lower-cased extension.
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

// Of a path, the file's name only (full match itself: scan-regex.test.js).
TEST(ScanFilters, IgnoreFileMatchesTheNameOfAPath) {
  ScanFilters scan;
  scan.ignoreFileRegs = {"dir.*", "report\\.docx"};
  scan.compile();
  const native_string dir = N("dir") + native_string(1, native_separator);
  EXPECT_TRUE(ignoreFile(scan, dir + N("report.docx")));
  EXPECT_FALSE(ignoreFile(scan, dir + N("other.docx")));
}

TEST(ScanFilters, FileRejectedOnlyInFineGrainedModeAndInItsOrder) {
  ScanFilters scan;
  scan.extFilter = includes("txt");
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
  rule.extFilter = includes("jpg");                    // replaces the scan-level one
  EXPECT_FALSE(fileRejected(scan, N("a.jpg"), &rule));
  EXPECT_TRUE(fileRejected(scan, N("a.txt"), &rule));
}

// The walk's threads and the watcher's loops only read one filter set: a
// set changed after compile() is refused, where the tests used to compile
// it lazily on whichever thread came first while others read the lists.
TEST(ScanFilters, TestsReadCompiledFiltersOnlyAndRefuseStaleOnes) {
  static_assert(std::is_invocable_r_v<bool, decltype(&walkFileRejected), const ScanFilters&, native_string_view,
                                      const ScanRule*>);
  static_assert(std::is_invocable_r_v<bool, decltype(&ignoreDir), const ScanFilters&, native_string_view>);
  static_assert(std::is_invocable_r_v<bool, decltype(&ruleRejects), const ScanRule&, native_string_view>);
  ScanFilters stale;
  stale.ignoreFileRegs = {"skip.*"};
  stale.ignoreDirRegs = {"tmp"};
  EXPECT_FALSE(stale.compiled());
  EXPECT_THROW(ignoreFile(stale, N("skip.txt")), std::logic_error);
  EXPECT_THROW(ignoreDir(stale, N("tmp")), std::logic_error);
  ScanRule rule;
  rule.omits.push_back(entry("draft.*", {}));
  EXPECT_THROW(ruleRejects(rule, N("draft1.txt")), std::logic_error);
}

}  // namespace
}  // namespace ostrel::scan
