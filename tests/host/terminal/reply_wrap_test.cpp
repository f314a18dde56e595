#include "host/terminal/reply_wrap.h"

#include <gtest/gtest.h>

#include <string>

namespace zym {
namespace {

// A byte at a time would split characters, which are fed whole; ASCII texts are fed so.
std::string wrapped(const std::string& text, size_t columns) {
  ReplyWrap wrap;
  std::string out;
  for (const char byte : text) {
    out += wrap.feed(std::string(1, byte), columns);
  }
  return out + wrap.finish();
}

std::string wrappedAtOnce(const std::string& text, size_t columns) {
  ReplyWrap wrap;
  const std::string out = wrap.feed(text, columns);
  return out + wrap.finish();
}

TEST(ReplyWrapTest, LinesBreakBetweenWords) {
  EXPECT_EQ(wrapped("one two three four", 9), "one two\nthree\nfour");
  EXPECT_EQ(wrapped("one two", 7), "one two") << "fills the row";
  EXPECT_EQ(wrapped("one two", 6), "one\ntwo");
}

TEST(ReplyWrapTest, LineEndsOfTheReplyStay) {
  EXPECT_EQ(wrapped("one\n\ntwo  three\n", 40), "one\n\ntwo  three\n");
}

TEST(ReplyWrapTest, OnlyTheWordAtTheEndIsHeldBack) {
  ReplyWrap wrap;
  EXPECT_EQ(wrap.feed("one two", 40), "one");
  EXPECT_EQ(wrap.feed(" ", 40), " two");
  EXPECT_EQ(wrap.feed("\n", 40), "\n");
  EXPECT_EQ(wrap.feed("three", 40), "");
  EXPECT_EQ(wrap.finish(), "three");
}

TEST(ReplyWrapTest, WordLongerThanARowIsLeftToTheTerminal) {
  EXPECT_EQ(wrapped("see https://example.org/a/long/path for it", 8),
            "see\nhttps://example.org/a/long/path\nfor it");
}

TEST(ReplyWrapTest, WideCharactersCountTwiceAndBreakAnywhere) {
  EXPECT_EQ(wrappedAtOnce("\u6F22\u5B57\u6F22\u5B57", 5), "\u6F22\u5B57\n\u6F22\u5B57");
  EXPECT_EQ(wrappedAtOnce("ab \u6F22\u0301\u5B57", 5), "ab \u6F22\u0301\n\u5B57");
  EXPECT_EQ(wrappedAtOnce("xy abc\u6F22", 6), "xy abc\n\u6F22") << "in front of one too";
  EXPECT_EQ(wrappedAtOnce("ab \u6F22\u0301cd", 5), "ab \u6F22\u0301\ncd") << "not before a mark";
}

TEST(ReplyWrapTest, CombiningMarksTakeNoColumn) {
  EXPECT_EQ(wrappedAtOnce("e\u0301e\u0301 ab", 5), "e\u0301e\u0301 ab");
}

TEST(ReplyWrapTest, CodeStaysAsItIs) {
  const std::string code = "```c in a file\nint long_line = 1 + 2 + 3;\n``` x\n```\n";
  EXPECT_EQ(wrapped(code + "and so on", 8), code + "and so\non");
}

TEST(ReplyWrapTest, FenceEndsWithOneAsLong) {
  const std::string code = "````\n```\nint long_line = 1;\n````\n";
  EXPECT_EQ(wrapped(code + "and so on", 8), code + "and so\non");
}

TEST(ReplyWrapTest, BackticksInsideALineAreNoFence) {
  EXPECT_EQ(wrapped("```a```\nand so on", 8), "```a```\nand so\non");
  EXPECT_EQ(wrapped("a ```\nand so on", 8), "a ```\nand so\non");
}

TEST(ReplyWrapTest, IndentedLinesStayAsTheyAre) {
  EXPECT_EQ(wrapped("  one two three\nfour five", 6), "  one two three\nfour\nfive");
  EXPECT_EQ(wrapped("\tone two three", 6), "\tone two three");
}

TEST(ReplyWrapTest, NothingBreaksAtAnUnknownWidth) {
  ReplyWrap wrap;
  EXPECT_EQ(wrap.feed("one two three", 0), "one two three");
}

TEST(ReplyWrapTest, WidthMayChangeWithinAReply) {
  ReplyWrap wrap;
  std::string out = wrap.feed("one two three ", 80);
  out += wrap.feed("four five six ", 10);
  EXPECT_EQ(out + wrap.finish(), "one two three\nfour five\nsix ");
}

TEST(ReplyWrapTest, EveryReplyBeginsAfresh) {
  ReplyWrap wrap;
  (void)wrap.feed("```\ncode", 8);
  (void)wrap.finish();
  EXPECT_EQ(wrap.feed("one two three ", 8), "one two\nthree");
}

TEST(ReplyWrapTest, WholeTextsAreNotHeldBack) {
  EXPECT_EQ(wrappedText("one two\nthree four  ", 8), "one two\nthree\nfour  ");
  EXPECT_EQ(wrappedText("one two", 0), "one two");
}

}  // namespace
}  // namespace zym
