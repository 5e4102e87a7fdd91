#include <gtest/gtest.h>

#include "runtime/strings.h"

namespace ostrel {
namespace {

TEST(Strings, RoundTripsEveryPlane) {
  std::string text = "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80z";  // a é 中 😀 z
  std::u16string wide = to_utf16(text);
  ASSERT_EQ(wide.size(), 6u);  // the emoji is a surrogate pair
  EXPECT_EQ(wide[3], 0xD83D);
  EXPECT_EQ(wide[4], 0xDE00);
  EXPECT_EQ(to_utf8(wide), text);
  EXPECT_EQ(to_utf8(to_wide(text)), text);
}

TEST(Strings, MalformedInputBecomesReplacementCharacters) {
  EXPECT_EQ(to_utf16("\xFF"), std::u16string(1, u'\xFFFD'));
  EXPECT_EQ(to_utf16("\xE4\xB8"), u"\xFFFD\xFFFD");            // truncated sequence
  EXPECT_EQ(to_utf16("\xC0\xAF"), u"\xFFFD\xFFFD");            // overlong '/'
  EXPECT_EQ(to_utf16("\xED\xA0\x80"), u"\xFFFD\xFFFD\xFFFD");  // encoded surrogate
  std::u16string lone_high = u"x";
  lone_high.push_back(static_cast<char16_t>(0xD800));
  EXPECT_EQ(to_utf8(lone_high), "x\xEF\xBF\xBD");
}

}  // namespace
}  // namespace ostrel
