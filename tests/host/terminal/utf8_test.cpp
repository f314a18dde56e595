#include "host/terminal/utf8.h"

#include <gtest/gtest.h>

namespace zym {
namespace {

TEST(Utf8Test, IncompleteTailIsWhatAnotherByteCouldComplete) {
  EXPECT_EQ(incompleteTail(""), 0U);
  EXPECT_EQ(incompleteTail("abc"), 0U);
  EXPECT_EQ(incompleteTail("a\xC3"), 1U);
  EXPECT_EQ(incompleteTail("a\xC3\xA9"), 0U);
  EXPECT_EQ(incompleteTail("\xE2\x82"), 2U);
  EXPECT_EQ(incompleteTail("\xF0\x9F\x98"), 3U);
  EXPECT_EQ(incompleteTail("\xF0\x9F\x98\x80"), 0U);
}

TEST(Utf8Test, StrayContinuationBytesAreNoTail) {
  EXPECT_EQ(incompleteTail("\x80"), 0U);
  EXPECT_EQ(incompleteTail("\x80\x80\x80\x80"), 0U);
  EXPECT_EQ(incompleteTail("\xC0"), 0U) << "begins no valid character";
  EXPECT_EQ(incompleteTail("\xFF"), 0U);
}

TEST(Utf8Test, InvalidBytesAreReplacedOneByOne) {
  EXPECT_EQ(replaceInvalid("a\x80\xFF\u00E9"), "a\uFFFD\uFFFD\u00E9");
  EXPECT_EQ(replaceInvalid("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD") << "a surrogate";
}

TEST(Utf8Test, NormalisationComposes) {
  EXPECT_EQ(normalised("e\u0301"), "\u00E9");
  EXPECT_EQ(normalised("\xFF"), "\xFF");
  EXPECT_EQ(normalised(""), "");
  EXPECT_EQ(normalised(std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST(Utf8Test, CodesAndBack) {
  EXPECT_EQ(toCodes("a\u00E9\xFF\U0001F600"), U"a\u00E9\uFFFD\U0001F600");
  EXPECT_EQ(fromCodes(U"a\u00E9\u6F22\U0001F600"), "a\u00E9\u6F22\U0001F600");
}

TEST(Utf8Test, ColumnsOfCharacters) {
  EXPECT_EQ(columnsOf(U'a'), 1U);
  EXPECT_EQ(columnsOf(U'\u0301'), 0U) << "combines";
  EXPECT_EQ(columnsOf(U'\u200D'), 0U) << "joins";
  EXPECT_EQ(columnsOf(U'\u6F22'), 2U);
  EXPECT_EQ(columnsOf(U'\U0001F600'), 2U);
  EXPECT_EQ(columnsOf(U'\U0001FAFF'), 2U) << "reserved for a pictograph";
  EXPECT_EQ(columnsOf(U'\u0378'), 1U) << "not assigned";
}

TEST(Utf8Test, ControlsDoNotReachATerminal) {
  EXPECT_EQ(withoutControls("a\x1b[2J\tb\n\x07\u009B"), "a[2J\tb\n");
}

}  // namespace
}  // namespace zym
