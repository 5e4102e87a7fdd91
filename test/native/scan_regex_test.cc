// The name matcher: its direct path for literal and ".*" expressions must
// answer exactly as the ECMAScript engine does.
#include <gtest/gtest.h>

#include <regex>

#include "runtime/strings.h"
#include "scan/name_regex.h"

namespace ostrel::scan {
namespace {

TEST(NameRegex, DirectMatcherAgreesWithTheEngine) {
  const char* patterns[] = {
      "node_modules", "~\\$.*",      ".*\\.tmp", ".*", "^abc$",         "a.*b.*c", ".*\\.tar\\.gz",
      "IMG.*?\\.jpg", "\\.DS_Store", "x.*.*y",   "^",  "caf\xC3\xA9.*", ".*\\$",   "a\\\\$",
  };
  const char* subjects[] = {
      "node_modules",
      "node_modules2",
      "~$report.docx",
      "a~$b",
      "file.tmp",
      "file.tmp.bak",
      "",
      "abc",
      "aXbYc",
      "acb",
      "archive.tar.gz",
      "IMG_1.jpg",
      "IMG.jpg",
      ".DS_Store",
      "xy",
      "x-y",
      "caf\xC3\xA9 au lait",
      "price$",
      "a\\",
      "line\nbreak.tmp",
      "a\xE2\x80\xA8"
      "b.tmp",
  };
  for (const char* p : patterns) {
    name_regex r(p);
    EXPECT_TRUE(r.is_simple()) << p;
    std::wregex engine(to_wide(p), std::regex_constants::ECMAScript);
    for (const char* s : subjects) {
      EXPECT_EQ(r.full_match(utf8_to_native(s)), std::regex_match(to_wide(s), engine)) << p << " on " << s;
    }
  }
}

TEST(NameRegex, OtherExpressionsUseTheEngine) {
  name_regex digits("IMG_\\d+");
  EXPECT_FALSE(digits.is_simple());
  EXPECT_TRUE(digits.full_match(utf8_to_native("IMG_12")));
  EXPECT_FALSE(digits.full_match(utf8_to_native("IMG_12a")));
  name_regex alt("(a|b)\\.txt");
  EXPECT_TRUE(alt.full_match(utf8_to_native("b.txt")));
  EXPECT_FALSE(alt.full_match(utf8_to_native("c.txt")));
  name_regex unicode("\xD1\x84\xD0\xBE\xD1\x82\xD0\xBE.+");  // фото.+
  EXPECT_TRUE(unicode.full_match(utf8_to_native("\xD1\x84\xD0\xBE\xD1\x82\xD0\xBE_1.jpg")));
}

TEST(NameRegex, BadExpressionsThrowNamingThemselves) {
  for (const char* bad : {"(", "[a-", "*x", "a{2,1}"}) {
    try {
      name_regex r(bad);
      FAIL() << bad << " compiled";
    } catch (const invalid_pattern& e) {
      EXPECT_NE(std::string(e.what()).find(std::string("\"") + bad + "\""), std::string::npos) << e.what();
    }
  }
}

}  // namespace
}  // namespace ostrel::scan
