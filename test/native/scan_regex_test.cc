// Name filters: JavaScript's reading of an expression, full match, both
// matchers (direct and engine) agreeing, bounded stack and bounded
// backtracking.
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/strings.h"
#include "scan/name_regex.h"

namespace ostrel::scan {
namespace {

using namespace std::string_view_literals;

struct match_case {
  const char* pattern;
  std::string_view name;  // UTF-8
  bool expected;
};

// Names no file system of the JS suites' can hold (control characters):
// the JS suite compares every other answer with V8's RegExp on generated
// expressions and names. Expected answers are those of
// `new RegExp("^(?:" + pattern + ")$").test(name)` in node.
const match_case cases[] = {
    {"~\\$.*", "~$a\nb"sv, false},
    {".*\\.tmp", "line\nbreak.tmp"sv, false},
    {".*\\.tmp", "a\rb.tmp"sv, false},
    {".*\\.tmp", "a\fb.tmp"sv, true},
    {"x.*.*y", "x\ny"sv, false},
    {"foo|bar.*|.*baz", "x\nbaz"sv, false},
    {"\\s", "\t"sv, true},
    {"[^]+", "a\nb"sv, true},
    {"[\\b]", "\b"sv, true},
    {"\\cA\\c1", "\1\\c1"sv, true},
    {"\\cA\\c1", "\1"sv, false},
    {"\\0\\101\\8", "\0A8"sv, true},
    {"\\f\\v\\t", "\f\v\t"sv, true},
    {".", "\n"sv, false},
    {".", "\r"sv, false},
    {".", "\f"sv, true},
    {".", "\0"sv, true},
    {"a.c", "a\nc"sv, false},
    {"a.c", "a\vc"sv, true},
    {"(a)\\2", "a\2"sv, true},
};

TEST(NameRegex, AnswersAsJavaScriptDoes) {
  // The first rows take the direct matcher (literals, lists and ".*").
  for (const auto& c : {cases[0], cases[1], cases[4], cases[5]})
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
// A Linux name that is not UTF-8 reads as U+FFFD on both matchers (as script
// sees it). Found by fuzz_name_regex: the direct matcher compared raw bytes.
TEST(NameRegex, InvalidUtf8NamesReadAsReplacementCharacters) {
  const char* found = "\xFF\xDA\xDA\x34";  // the fuzzer's input
  for (const char* p :
       {"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\x34", "\xEF\xBF\xBD.*", "x|\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\x34"}) {
    name_regex direct(p);
    name_regex engine(p, name_regex::path::engine_only);
    ASSERT_TRUE(direct.is_simple()) << p;
    EXPECT_TRUE(engine.full_match(found)) << p;
    EXPECT_TRUE(direct.full_match(found)) << p;
    for (const char* name : {"\xFF", "\xFF\xDA\x34", "\xC3", "a\xE2\x80", "\xEF\xBF\xBD"}) {
      EXPECT_EQ(direct.full_match(name), engine.full_match(name)) << p;
    }
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

// Runs `body` on a thread with a 256 KiB stack: the compiler, the
// translation and the matcher must not need more, whatever the expression.
// Sanitizers' and unoptimised (coverage) frames are several times larger:
// 4 MiB there.
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
    std::string looks;
    for (int i = 0; i < 255; ++i) looks += "(?=";
    looks += "a" + std::string(255, ')') + "a+";
    EXPECT_TRUE(name_regex(looks).full_match(utf8_to_native("aa")));

    // A list long enough for the direct matcher's hash set, on both
    // matchers, and the same list grouped before a suffix (the engine).
    std::string list;
    for (int i = 0; i < 20000; ++i) list += (i ? "|n" : "n") + std::to_string(i);
    name_regex direct(list);
    name_regex engine(list, name_regex::path::engine_only);
    ASSERT_TRUE(direct.is_simple());
    for (auto [name, listed] : std::initializer_list<std::pair<const char*, bool>>{{"n0", true},
                                                                                   {"n9999", true},
                                                                                   {"n19999", true},
                                                                                   {"n20000", false},
                                                                                   {"n", false},
                                                                                   {"", false},
                                                                                   {"n1x", false}}) {
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

TEST(NameRegex, HopelessBacktrackingIsNoMatchReportedOnce) {
  name_regex r("(a+)+$");
  ::testing::internal::CaptureStderr();
  std::string hopeless(40, 'a');
  EXPECT_FALSE(r.full_match(utf8_to_native(hopeless + "!")));
  EXPECT_FALSE(r.full_match(utf8_to_native(hopeless + "?")));
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(r.gave_up_count(), 2u);
  EXPECT_NE(err.find("name filter: the regular expression \"(a+)+$\" is too complex for \"" + hopeless +
                     "!\"; treated as no match"),
            std::string::npos)
      << err;
  EXPECT_EQ(err.find(hopeless + "?"), std::string::npos) << "reported twice: " << err;
  // The expression still answers where it can.
  EXPECT_TRUE(r.full_match(utf8_to_native(hopeless)));
  EXPECT_FALSE(r.full_match(utf8_to_native("b")));

  // Copies share the report.
  name_regex copy = r;
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(copy.full_match(utf8_to_native(hopeless + "#")));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");

  // Nested quantifiers, alternation and a backreference: all bounded.
  for (const char* p : {"(a*)*b", "(a|aa)+b", "(?:a+|b)+(?:a+|b)+c", "(a+)+\\1c", "(.*a){20}"}) {
    name_regex other(p);
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(other.full_match(utf8_to_native(std::string(40, 'a') + "!"))) << p;
    std::string line = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(other.gave_up_count(), 1u) << p;
    EXPECT_NE(line.find("too complex"), std::string::npos) << p;
  }
}

}  // namespace
}  // namespace ostrel::scan
