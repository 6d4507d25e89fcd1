#include <gtest/gtest.h>

#include <string>

#include "support/utf.h"

using tpcsdk::Utf16ToUtf8;
using tpcsdk::Utf8ToUtf16;

struct Utf8Case {
  std::string utf8;
  std::u16string utf16;
};

class Utf8Valid : public ::testing::TestWithParam<Utf8Case> {};

TEST_P(Utf8Valid, RoundTripsBothWays) {
  EXPECT_EQ(Utf8ToUtf16(GetParam().utf8), GetParam().utf16);
  EXPECT_EQ(Utf16ToUtf8(GetParam().utf16), GetParam().utf8);
  EXPECT_EQ(tpcsdk::ValidUtf8(GetParam().utf8), GetParam().utf8);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Utf8Valid,
    ::testing::Values(Utf8Case{"", u""}, Utf8Case{"plain ascii", u"plain ascii"},
                      Utf8Case{"\xC3\xA9t\xC3\xA9", u"\u00E9t\u00E9"},
                      Utf8Case{"\xE2\x82\xAC 100", u"\u20AC 100"},
                      Utf8Case{"\xF0\x9F\x98\x80", u"\U0001F600"},
                      Utf8Case{"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
                      Utf8Case{"\xEF\xBF\xBD", u"\uFFFD"},
                      Utf8Case{std::string("a\0b", 3), std::u16string(u"a\0b", 3)}));

struct BadUtf8 {
  std::string in;
  std::u16string out;
};

class Utf8Invalid : public ::testing::TestWithParam<BadUtf8> {};

TEST_P(Utf8Invalid, BecomesReplacementCharacters) {
  EXPECT_EQ(Utf8ToUtf16(GetParam().in), GetParam().out);
  // Kept in UTF-8, the text is what a trip through UTF-16 makes of it, also behind a
  // valid replacement character and a run of ASCII.
  const std::string text = "ok \xEF\xBF\xBD " + GetParam().in + " end";
  EXPECT_EQ(tpcsdk::ValidUtf8(text), Utf16ToUtf8(Utf8ToUtf16(text)));
  EXPECT_NE(tpcsdk::ValidUtf8(text), text);
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, Utf8Invalid,
    ::testing::Values(BadUtf8{"\x80", u"\uFFFD"},                 // stray continuation
                      BadUtf8{"\xC3", u"\uFFFD"},                 // truncated at end
                      BadUtf8{"\xC0\xAF", u"\uFFFD\uFFFD"},       // overlong
                      BadUtf8{"\xE0\x80\xAF", u"\uFFFD\uFFFD\uFFFD"},
                      BadUtf8{"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},  // encoded surrogate
                      BadUtf8{"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // > U+10FFFF
                      BadUtf8{"\xE2\x82x", u"\uFFFDx"},           // cut short, resumes
                      BadUtf8{"\xFF\xFE", u"\uFFFD\uFFFD"}));

TEST(Utf16ToUtf8, UnpairedSurrogatesBecomeReplacement) {
  EXPECT_EQ(Utf16ToUtf8(std::u16string(1, u'\xD800')), "\xEF\xBF\xBD");
  EXPECT_EQ(Utf16ToUtf8(std::u16string{u'\xDC00', u'a'}), "\xEF\xBF\xBD" "a");
  EXPECT_EQ(Utf16ToUtf8(std::u16string{u'\xD83D', u'\xD83D', u'\xDE00'}),
            "\xEF\xBF\xBD\xF0\x9F\x98\x80");
}
