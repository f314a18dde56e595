#include "engine/word_pattern.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace engine {
namespace {

using Words = std::vector<std::string>;

Words wordsOf(std::string_view text) {
  Words words;
  for (size_t at = 0; at < text.size();) {
    const size_t end = wordEnd(text, at);
    words.emplace_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

// In front of a letter, since elsewhere they would be words anyhow: as letters behind a sign.
TEST(WordPattern, ContractionsAreWords) {
  for (const char* contraction : {"'s", "'t", "'re", "'ve", "'m", "'ll", "'d"}) {
    const std::string text = contraction;
    EXPECT_EQ((Words{"x", text, "y"}), wordsOf("x" + text + "y"));
    EXPECT_EQ((Words{text}), wordsOf(text));
  }
}

TEST(WordPattern, CaseOfContractionsDoesNotMatter) {
  for (const char* contraction : {"'S", "'T", "'rE", "'VE", "'M", "'Ll", "'D", "'\u017F"}) {
    const std::string text = contraction;
    EXPECT_EQ((Words{"X", text, "Y"}), wordsOf("X" + text + "Y"));
  }
}

TEST(WordPattern, OtherLettersTakeTheApostropheAlong) {
  EXPECT_EQ((Words{"'n", " r", "'l"}), wordsOf("'n r'l"));
  EXPECT_EQ((Words{"'rx", "'v"}), wordsOf("'rx'v"));
  EXPECT_EQ((Words{"it", "\u2019s"}), wordsOf("it\u2019s"));
}

TEST(WordPattern, LettersAndMarksAreOneWord) {
  EXPECT_EQ((Words{"naïve", " स्त्री", " x\u0301y字"}), wordsOf("naïve स्त्री x\u0301y字"));
  EXPECT_EQ((Words{"\u0301"}), wordsOf("\u0301"));
  EXPECT_EQ((Words{"\u0301a"}), wordsOf("\u0301a"));
  EXPECT_EQ((Words{" \u0301"}), wordsOf(" \u0301"));
}

TEST(WordPattern, OneCharacterThatIsNoLetterNumberOrBreakOpensAWord) {
  EXPECT_EQ((Words{" a", "\ta", "(a", "\u00A0a", "\u2028a", "\u0085a"}),
            wordsOf(" a\ta(a\u00A0a\u2028a\u0085a"));
  EXPECT_EQ((Words{"((", "a"}), wordsOf("((a"));
  EXPECT_EQ((Words{"\n", "a", "1", "a"}), wordsOf("\na1a"));
  EXPECT_EQ((Words{"a", "×b"}), wordsOf("a×b"));
}

TEST(WordPattern, EveryNumberIsAWord) {
  EXPECT_EQ((Words{"1", "9", "½", "²", "Ⅻ", "٣", " ", "7"}), wordsOf("19½²Ⅻ٣ 7"));
}

TEST(WordPattern, SignsTakeOneSpaceBeforeAndBreaksBehind) {
  EXPECT_EQ((Words{"a", " {\n", "b", "):\r\n\n", " ", " !?"}), wordsOf("a {\nb):\r\n\n  !?"));
  EXPECT_EQ((Words{"\u201D."}), wordsOf("\u201D."));
  EXPECT_EQ((Words{"\t", "--"}), wordsOf("\t--"));
  EXPECT_EQ((Words{"\u00A0", "--"}), wordsOf("\u00A0--"));
  EXPECT_EQ((Words{"\u200B\u0001\uE000\U000E0FFF\uFEFF"}),
            wordsOf("\u200B\u0001\uE000\U000E0FFF\uFEFF"));
}

TEST(WordPattern, WhiteSpaceUpToItsLastBreakIsAWord) {
  EXPECT_EQ((Words{"a", " \n\t\n", "  ", " b"}), wordsOf("a \n\t\n   b"));
  EXPECT_EQ((Words{"a", "\r\n\r\n", "b"}), wordsOf("a\r\n\r\nb"));
  EXPECT_EQ((Words{"\n", " a"}), wordsOf("\n a"));
}

TEST(WordPattern, TheLastOfOtherWhiteSpaceBelongsToWhatFollows) {
  EXPECT_EQ((Words{"\t", "\ta"}), wordsOf("\t\ta"));
  EXPECT_EQ((Words{"  ", " ", "1"}), wordsOf("   1"));
  EXPECT_EQ((Words{" ", " ."}), wordsOf("  ."));
  EXPECT_EQ((Words{"\u3000\u0085", "\u2003", "1"}), wordsOf("\u3000\u0085\u20031"));
}

TEST(WordPattern, WhiteSpaceAtTheEndIsAWord) {
  EXPECT_EQ((Words{"a", "   "}), wordsOf("a   "));
  EXPECT_EQ((Words{"a", " "}), wordsOf("a "));
  EXPECT_EQ((Words{"a", "\n", "  "}), wordsOf("a\n  "));
}

}  // namespace
}  // namespace engine
