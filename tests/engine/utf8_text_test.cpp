#include "engine/utf8_text.h"

#include <gtest/gtest.h>

#include <string>

namespace engine {
namespace {

std::string valid(std::string_view text) {
  std::string out;
  appendValid(text, out);
  return out;
}

std::string repeated(std::string_view part, size_t times) {
  std::string text;
  for (size_t i = 0; i < times; ++i) {
    text += part;
  }
  return text;
}

TEST(Utf8Text, ValidTextStays) {
  const std::string text = "abcdefgh é \u0800 \uD7FF \uE000 \uFFFF \U00010000 \U0010FFFF";
  EXPECT_EQ(text, valid(text));
  EXPECT_TRUE(isValid(text));
  EXPECT_TRUE(isValid(std::string(3, '\0')));
}

// The examples of The Unicode Standard, tables 3-8 to 3-11: what could begin a character is one
// replacement, every other byte one of its own.
TEST(Utf8Text, BytesOfNoCharacterAreReplacedByMaximalSubparts) {
  const std::string r = "\uFFFD";
  EXPECT_EQ(r + r + r + r + r + r + r + r + "A", valid("\xC0\xAF\xE0\x80\xBF\xF0\x81\x82"
                                                       "A"));
  EXPECT_EQ(r + r + r + r + r + r + r + r + "A", valid("\xED\xA0\x80\xED\xBF\xBF\xED\xAF"
                                                       "A"));
  EXPECT_EQ(r + r + r + r + r + "A" + r + r + "B", valid("\xF4\x91\x92\x93\xFF"
                                                         "A\x80\xBF"
                                                         "B"));
  EXPECT_EQ(r + r + r + r + "A", valid("\xE1\x80\xE2\xF0\x91\x92\xF1\xBF"
                                       "A"));
}

TEST(Utf8Text, ATextThatNeedsReplacementsIsNotValid) {
  for (const char* text :
       {"abcdefgh\xC3", "\x80", "\xF5\x80\x80\x80", "\xED\xA0\x80", "\xC1\xBF"}) {
    EXPECT_FALSE(isValid(text)) << text;
  }
}

TEST(Utf8Text, OnlyTheBeginningOfACharacterIsUnfinished) {
  EXPECT_EQ(0U, unfinishedBytes(""));
  EXPECT_EQ(0U, unfinishedBytes("aé"));
  EXPECT_EQ(1U, unfinishedBytes("a\xC3"));
  EXPECT_EQ(2U, unfinishedBytes("a\xE2\x82"));
  EXPECT_EQ(3U, unfinishedBytes("a\xF0\x9F\x98"));
  EXPECT_EQ(0U, unfinishedBytes("a\x80"));
  EXPECT_EQ(0U, unfinishedBytes("a\xED\xA0"));  // a surrogate's
  EXPECT_EQ(0U, unfinishedBytes("\x80\x80\x80"));
}

TEST(Utf8Text, MarksJoinTheCharacterBefore) {
  EXPECT_EQ("é", composed("e\u0301"));
  EXPECT_EQ("aéb é", composed("ae\u0301b e\u0301"));
  EXPECT_EQ("ǘ", composed("ü\u0301"));
  EXPECT_EQ("각", composed("\u1100\u1161\u11A8"));
  EXPECT_EQ("Åΐ", composed("\u212B\u1FD3"));  // singletons
}

TEST(Utf8Text, CompositionExclusionsStayApart) {
  EXPECT_EQ("\u0915\u093C", composed("\u0958"));
  EXPECT_EQ("\u0915\u093C", composed("\u0915\u093C"));
}

TEST(Utf8Text, MarksComeInCanonicalOrder) {
  EXPECT_EQ("q\u0323\u0307", composed("q\u0307\u0323"));
  EXPECT_EQ("\u1E69", composed("s\u0307\u0323"));
  EXPECT_EQ("x\u05AE\u0300\u0301\u0315b", composed("x\u0315\u0300\u05AE\u0301b"));
}

TEST(Utf8Text, ComposedTextStays) {
  const std::string text = "\u0301 naïve ½ “x” 字\u200B \U0001F600 \uFFFD\U000E0100";
  EXPECT_EQ(text, composed(text));
}

TEST(Utf8Text, TextBelowTheMarksIsTold) {
  EXPECT_TRUE(isBelowMarks("aé\u02FF"));
  EXPECT_FALSE(isBelowMarks("a\u0300"));
}

// Alternating classes are the case where exchanging neighbours takes quadratic time: minutes here.
TEST(Utf8Text, ALongRunOfMarksIsOrderedAtOnce) {
  const size_t n = 200000;
  const std::string text = "a" + repeated("\u0307\u0323", n);
  EXPECT_EQ("ạ" + repeated("\u0323", n - 1) + repeated("\u0307", n), composed(text));
}

}  // namespace
}  // namespace engine
