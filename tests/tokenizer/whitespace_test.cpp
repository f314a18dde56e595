#include "tokenizer/whitespace.h"

#include <gtest/gtest.h>

#include "tests/tokenizer/vocabulary.h"

namespace {

using kel::testing::kByteLevelRule;
using kel::testing::loaded;
using kel::testing::tables;

std::string escaped(std::string s) {
  kel::escapeWhitespace(s);
  return s;
}

std::string unescaped(std::string s) {
  kel::unescapeWhitespace(s);
  return s;
}

TEST(Whitespace, SpaceBecomesTheThreeByteMarker) {
  EXPECT_EQ(
      "a\xE2\x96\x81"
      "b",
      escaped("a b"));
  EXPECT_EQ("", escaped(""));
}

TEST(Whitespace, TwoSpacesGiveTwoMarkers) {
  EXPECT_EQ("\xE2\x96\x81\xE2\x96\x81", escaped("  "));
}

TEST(Whitespace, OtherBytesPassUnchanged) {
  const std::string bytes("\t\n\r\v\f\0\xC2\xA0\xFF", 9);
  EXPECT_EQ(bytes, escaped(bytes));
  EXPECT_EQ(bytes, unescaped(bytes));
}

TEST(Whitespace, EveryMarkerBecomesASpace) {
  EXPECT_EQ("  x", unescaped("\xE2\x96\x81\xE2\x96\x81x"));
  EXPECT_EQ("", unescaped(""));
}

TEST(Whitespace, CutMarkerStays) {
  EXPECT_EQ("\xE2\x96", unescaped("\xE2\x96"));
  EXPECT_EQ("\xE2\x96 ", unescaped("\xE2\x96\xE2\x96\x81"));
}

TEST(Whitespace, TwoByteMarkerIsNotUnescaped) {
  EXPECT_EQ("Ġx", unescaped("Ġx"));
}

TEST(Whitespace, MembersFollowTheVocabularyOneWayOnly) {
  const kel::Tokenizer byteLevel = loaded(tables({"a"}, {kByteLevelRule}));
  const kel::Tokenizer other = loaded(tables({"a"}));
  std::string s = "a b";
  byteLevel.escapeWhitespace(s);
  EXPECT_EQ(
      "a\xC4\xA0"
      "b",
      s);
  s = "a b";
  other.escapeWhitespace(s);
  EXPECT_EQ(
      "a\xE2\x96\x81"
      "b",
      s);

  s = "ĠxX▁y";
  byteLevel.unescapeWhitespace(s);
  EXPECT_EQ("ĠxX y", s);
  s = "ĠxX▁y";
  other.unescapeWhitespace(s);
  EXPECT_EQ("ĠxX y", s);
}

}  // namespace
