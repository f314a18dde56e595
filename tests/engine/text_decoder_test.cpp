#include "engine/text_decoder.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace engine {
namespace {

constexpr int32_t kEnd = 4;

kel::Tokenizer tokenizer(std::vector<std::string> tokens, const std::string& firstRule,
                         const std::string& label) {
  kel::TokenizerData data;
  data.tokens = std::move(tokens);
  data.tokenTypes.assign(data.tokens.size(), 1);
  data.tokenTypes[kEnd] = 3;
  data.merges = {firstRule};
  data.label = label;
  kel::Tokenizer made;
  EXPECT_TRUE(made.load(std::move(data)).ok());
  return made;
}

kel::Tokenizer alphabet() {
  return tokenizer({"Ġa", "\n", "Ã", "©", "<|end é|>"}, "Ġ a", "alphabet");
}

std::string decode(const kel::Tokenizer& from, const std::vector<int32_t>& ids,
                   TextDecoder::Specials specials = TextDecoder::Specials::Hidden) {
  TextDecoder decoder(from, specials);
  std::string text;
  for (const int32_t id : ids) {
    text += decoder.feed(id);
  }
  return text + decoder.finish();
}

TEST(TextDecoderTest, LettersAreBytes) {
  EXPECT_EQ(" a\n a", decode(alphabet(), {0, 1, 0}));
}

TEST(TextDecoderTest, ACharacterComesWhenItIsWhole) {
  const kel::Tokenizer from = alphabet();
  TextDecoder decoder(from, TextDecoder::Specials::Hidden);
  EXPECT_EQ("", decoder.feed(2));
  EXPECT_EQ("é", decoder.feed(3));
  EXPECT_EQ("", decoder.finish());
}

TEST(TextDecoderTest, BytesOfNoCharacterAreReplaced) {
  EXPECT_EQ("\uFFFD a\uFFFD", decode(alphabet(), {3, 0, 2}));
  EXPECT_EQ("\uFFFDé", decode(alphabet(), {2, 2, 3}));
}

TEST(TextDecoderTest, SpecialTokensAreHiddenUnlessAskedFor) {
  EXPECT_EQ(" a a", decode(alphabet(), {0, kEnd, 0}));
  EXPECT_EQ(" a<|end é|> a", decode(alphabet(), {0, kEnd, 0}, TextDecoder::Specials::Shown));
}

TEST(TextDecoderTest, ASpecialTokenEndsACharacter) {
  EXPECT_EQ("\uFFFD\uFFFD", decode(alphabet(), {2, kEnd, 3}));
}

TEST(TextDecoderTest, IdsOutsideTheVocabularyAddNothing) {
  EXPECT_EQ(" a", decode(alphabet(), {-1, 0, 5}));
}

TEST(TextDecoderTest, RawTokensAreBytesButForTheSpace) {
  const kel::Tokenizer raw = tokenizer({"Ġa", "\n", "\xC3", "\xA9", "<|>"}, "Ġ a", "raw");
  EXPECT_EQ(" a\né", decode(raw, {0, 1, 2, 3}));
}

TEST(TextDecoderTest, TheMarkOfOtherFamiliesIsASpace) {
  const kel::Tokenizer other = tokenizer({"\u2581a", "Ġ", "b", "c", "<|>"}, "b c", "");
  EXPECT_EQ(" aĠb", decode(other, {0, 1, 2}));
}

}  // namespace
}  // namespace engine
