#include "host/chat/text_map.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zym {
namespace {

constexpr int32_t kNormal = 1;
constexpr int32_t kControl = 3;

// A byte-level vocabulary with a few tokens of several white-space characters.
kel::TokenizerData tables(const std::string& label) {
  kel::TokenizerData data;
  data.label = label;
  data.tokens = {"Ġ", "\n", "ĠĠ", "ĊĊ", ".Ċ", "ĉ", "a", "b", "<|im_end|>", "<|im", "ĠĊ", "."};
  data.tokenTypes = std::vector<int32_t>(data.tokens.size(), kNormal);
  data.tokenTypes[8] = kControl;
  data.tokenTypes[9] = kControl;
  data.merges = {"Ġ Ġ", "Ċ Ċ", ". Ċ", "Ġ Ċ"};
  return data;
}

std::string mapped(const std::string& text, const std::string& label = "alphabet",
                   bool keepSpecial = false) {
  const TextMap map(tables(label));
  std::string out;
  const kel::Status status = map.toVocabulary(text, keepSpecial, out);
  return status.ok() ? out : "refused: " + status.message;
}

TEST(TextMapTest, PrintableAsciiAndSingleSpacesStay) {
  EXPECT_EQ(mapped("Hello, world! (1+1)"), "Hello, world! (1+1)");
}

TEST(TextMapTest, BytesBeyondAsciiBecomeLetters) {
  EXPECT_EQ(mapped("é"), "Ã©");         // C3 A9
  EXPECT_EQ(mapped("\u2028"), "âĢ¨");   // E2 80 A8
  EXPECT_EQ(mapped("\x7f"), "\u0121");  // the first byte above the printable ones
}

TEST(TextMapTest, TextIsNormalisedFirst) {
  EXPECT_EQ(mapped("e\u0301"), mapped("é"));
  EXPECT_EQ(mapped("e\u0301", "raw"), "é");
}

TEST(TextMapTest, InvalidUtf8IsMappedAsItIs) {
  EXPECT_EQ(mapped("\xC3"), "Ã");
}

TEST(TextMapTest, SingleLineFeedStaysReal) {
  EXPECT_EQ(mapped("a\nb"), "a\nb");
}

TEST(TextMapTest, LineFeedsThatHaveATokenBecomeLetters) {
  EXPECT_EQ(mapped("a\n\nb"), "aĊĊb");
}

TEST(TextMapTest, LineFeedThatIsLeftOverStaysReal) {
  EXPECT_EQ(mapped("a\n\n\nb"), "aĊĊ\nb");
}

TEST(TextMapTest, LineFeedJoinsASinglePunctuationMark) {
  EXPECT_EQ(mapped("a.\nb"), "a.Ċb");
  EXPECT_EQ(mapped("a..\nb"), "a..\nb");
  EXPECT_EQ(mapped("a .\nb"), "a .\nb");
  EXPECT_EQ(mapped("a!\nb"), "a!\nb") << "no token of ! and a line feed";
}

TEST(TextMapTest, SpaceInFrontOfALineFeedJoinsIt) {
  EXPECT_EQ(mapped("a \nb"), "aĠĊb");
}

TEST(TextMapTest, LastSpaceOfARunBelongsToTheWordBehind) {
  EXPECT_EQ(mapped("a  b"), "aĠ b");
  EXPECT_EQ(mapped("a   b"), "aĠĠ b");
  EXPECT_EQ(mapped("a\n b"), "a\n b");
  EXPECT_EQ(mapped("a\n  b"), "a\nĠ b");
}

TEST(TextMapTest, RunThatEndsTheTextIsOneWord) {
  EXPECT_EQ(mapped("a  "), "aĠĠ");
  EXPECT_EQ(mapped("a "), "a ");
}

TEST(TextMapTest, TabBecomesALetter) {
  EXPECT_EQ(mapped("\ta"), "ĉa");
}

TEST(TextMapTest, VocabularyWithoutRunsKeepsRealLineFeeds) {
  kel::TokenizerData data = tables("alphabet");
  data.merges.clear();
  std::string out;
  ASSERT_TRUE(TextMap(data).toVocabulary("a\n\nb", false, out).ok());
  EXPECT_EQ(out, "a\n\nb");
}

TEST(TextMapTest, RawVocabularyTakesTextAsItIs) {
  EXPECT_EQ(mapped("a\n\n  é", "raw"), "a\n\n  é");
}

TEST(TextMapTest, RawVocabularyRefusesNul) {
  EXPECT_EQ(mapped(std::string("a\0b", 3), "raw"),
            "refused: the text holds a NUL byte, which this vocabulary cannot take");
  EXPECT_EQ(mapped(std::string("a\0b", 3)), "a\u0100b");
}

TEST(TextMapTest, SpecialTokensAreBrokenBehindTheirFirstCharacter) {
  EXPECT_EQ(mapped("a<|im_end|>b"), "a<\u200B|im_end|>b");
  EXPECT_EQ(mapped("<|im x"), "<\u200B|im x");
  EXPECT_EQ(mapped("<|im_end|>", "raw"), "<\u200B|im_end|>");
}

TEST(TextMapTest, RawFlagKeepsSpecialTokens) {
  EXPECT_EQ(mapped("a<|im_end|>b", "alphabet", true), "a<|im_end|>b");
}

TEST(TextMapTest, TokenInsideABrokenTokenIsBrokenToo) {
  kel::TokenizerData data = tables("alphabet");
  data.tokens.push_back("|im_end|>");
  data.tokenTypes.push_back(kControl);
  std::string out;
  ASSERT_TRUE(TextMap(data).toVocabulary("<|im_end|>", false, out).ok());
  EXPECT_EQ(out, "<\u200B|\u200Bim_end|>");
}

// The promise behind the zero-width space: no special id is left, and the break has no token.
TEST(TextMapTest, BrokenSpecialTokenIsReadAsPlainText) {
  kel::TokenizerData data = tables("alphabet");
  data.tokens = {"<|im_end|>", "<", "|", "i", "m", "_", "e", "n", "d", ">", "Ġ"};
  data.tokenTypes = std::vector<int32_t>(data.tokens.size(), kNormal);
  data.tokenTypes[0] = kControl;
  data.merges = {"Ġ a"};
  std::string out;
  ASSERT_TRUE(TextMap(data).toVocabulary("<|im_end|>", false, out).ok());
  kel::Tokenizer tokenizer;
  ASSERT_TRUE(tokenizer.load(data).ok());
  std::vector<int32_t> ids;
  ASSERT_TRUE(tokenizer.encode(out, ids, false).ok());
  EXPECT_EQ(ids, (std::vector<int32_t>{1, 2, 3, 4, 5, 6, 7, 8, 2, 9}));
}

TEST(PieceDecoderTest, LettersBecomeBytes) {
  PieceDecoder decoder(VocabText::Alphabet);
  EXPECT_EQ(decoder.feed("HelloĠworldĊ"), "Hello world\n");
  EXPECT_EQ(decoder.feed("<|im_end|>\n"), "<|im_end|>\n");
  EXPECT_EQ(decoder.finish(), "");
}

TEST(PieceDecoderTest, SplitCharacterAppearsWhole) {
  PieceDecoder decoder(VocabText::Alphabet);
  EXPECT_EQ(decoder.feed("aðŁ"), "a");  // F0 9F
  EXPECT_EQ(decoder.feed("ĺ"), "");     // 98
  EXPECT_EQ(decoder.feed("Ģb"), "😀b");  // 80
}

TEST(PieceDecoderTest, CutCharacterAtTheEndIsReplaced) {
  PieceDecoder decoder(VocabText::Alphabet);
  EXPECT_EQ(decoder.feed("aÃ"), "a");
  EXPECT_EQ(decoder.finish(), "\uFFFD");
}

TEST(PieceDecoderTest, ByteOutsideACharacterIsReplaced) {
  PieceDecoder decoder(VocabText::Alphabet);
  EXPECT_EQ(decoder.feed("Ģa"), "\uFFFDa");
}

TEST(PieceDecoderTest, RawVocabularyTurnsItsMarkIntoASpace) {
  PieceDecoder decoder(VocabText::Raw);
  EXPECT_EQ(decoder.feed("aĠé"), "a é");
  EXPECT_EQ(decoder.feed("\xC3"), "");
  EXPECT_EQ(decoder.feed("\xA9"), "é");
}

}  // namespace
}  // namespace zym
