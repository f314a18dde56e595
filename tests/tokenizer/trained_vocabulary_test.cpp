// The tokenizer on vocabularies of realistic size, trained on the sample texts.
#include <gtest/gtest.h>

#include <string>

#include "tests/tokenizer/bpe_trainer.h"
#include "tests/tokenizer/reference_bpe.h"
#include "tests/tokenizer/sample_text.h"
#include "tests/tokenizer/vocabulary.h"
#include "tokenizer/tokenizer.h"
#include "tokenizer/whitespace.h"
#include "tokenizer/word_splitter.h"

namespace {

using kel::Tokenizer;
using kel::testing::encoded;
using kel::testing::loaded;
using kel::testing::merged;
using kel::testing::ReferenceRanks;
using kel::testing::SampleText;
using kel::testing::sampleTexts;
using Ids = std::vector<int32_t>;

#ifdef NDEBUG
constexpr size_t kTrainingBytes = 1'500'000;
constexpr size_t kMerges = 8'000;
#else
constexpr size_t kTrainingBytes = 100'000;
constexpr size_t kMerges = 1'000;
#endif

class TrainedVocabulary : public ::testing::TestWithParam<std::string_view> {
 protected:
  static Tokenizer trained() {
    const std::string text = kel::testing::generatedEnglish(kTrainingBytes, 1) +
                             kel::testing::allSampleText() + kel::testing::allSampleText();
    return loaded(kel::testing::trainBpe(text, GetParam(), kMerges));
  }

  static Ids referenceIds(const Tokenizer& tokenizer, const ReferenceRanks& ranks,
                          std::string_view piece) {
    Ids ids;
    for (const std::string& symbol : kel::testing::referenceMerge(piece, ranks))
      ids.push_back(tokenizer.tokenToId(symbol));
    return ids;
  }

  static std::string decodedWithSpaces(const Tokenizer& tokenizer, const Ids& ids) {
    std::string text;
    EXPECT_TRUE(tokenizer.decode(ids, text).ok());
    std::string spaced;
    for (size_t at = 0; at < text.size();) {
      const bool marker = text.compare(at, kel::kByteLevelSpace.size(), kel::kByteLevelSpace) == 0;
      spaced += marker ? ' ' : text[at];
      at += marker ? kel::kByteLevelSpace.size() : 1;
    }
    return spaced;
  }
};

TEST_P(TrainedVocabulary, IsOfRealisticSizeAndKind) {
  const Tokenizer tokenizer = trained();
  EXPECT_EQ(GetParam() == kel::kByteLevelSpace, tokenizer.byteLevel);
  EXPECT_GT(tokenizer.tokens.size(), kMerges);
  EXPECT_GE(tokenizer.merges.size(), kMerges);
  EXPECT_EQ(tokenizer.tokens.size(), tokenizer.tokenIndex.size());
  EXPECT_EQ(3U, tokenizer.specialTokens.size());
  EXPECT_EQ(tokenizer.eosId, tokenizer.tokenToId("<|im_end|>"));
  const std::string sample(sampleTexts().front().text);
  EXPECT_LT(encoded(tokenizer, sample).size() * 3, sample.size()) << "merging hardly merges";
}

TEST_P(TrainedVocabulary, TextComesBackInEveryScript) {
  const Tokenizer tokenizer = trained();
  for (const SampleText& sample : sampleTexts()) {
    const Ids ids = encoded(tokenizer, sample.text);
    EXPECT_EQ(sample.text, decodedWithSpaces(tokenizer, ids)) << sample.language;
  }
  const std::string unseen = kel::testing::generatedEnglish(50'000, 77);
  EXPECT_EQ(unseen, decodedWithSpaces(tokenizer, encoded(tokenizer, unseen)));
}

TEST_P(TrainedVocabulary, ChatTurnComesBackWithItsSpecialTokens) {
  const Tokenizer tokenizer = trained();
  const std::string turn = "<|im_start|>user\nHow does a river decide?<|im_end|>\n";
  const Ids ids = encoded(tokenizer, turn);
  EXPECT_EQ(tokenizer.tokenToId("<|im_start|>"), ids.front());
  EXPECT_EQ(tokenizer.tokenToId("<|im_end|>"), ids[ids.size() - 2]);
  EXPECT_EQ(turn, decodedWithSpaces(tokenizer, ids));
}

TEST_P(TrainedVocabulary, IdsEqualThoseOfThePlainRescan) {
  const Tokenizer tokenizer = trained();
  const ReferenceRanks ranks = kel::testing::referenceRanks(tokenizer.merges);
  for (const SampleText& sample : sampleTexts()) {
    for (const std::string_view word : kel::splitWords(sample.text)) {
      std::string escaped(word);
      tokenizer.escapeWhitespace(escaped);
      ASSERT_EQ(referenceIds(tokenizer, ranks, escaped), merged(tokenizer, escaped)) << word;
    }
  }
  std::string line = kel::testing::generatedLine(600, 5);
  tokenizer.escapeWhitespace(line);
  EXPECT_EQ(referenceIds(tokenizer, ranks, line), merged(tokenizer, line));
}

INSTANTIATE_TEST_SUITE_P(SpaceMarkers, TrainedVocabulary,
                         ::testing::Values(kel::kByteLevelSpace, kel::kEscapedSpace),
                         [](const auto& marker) {
                           return marker.param == kel::kByteLevelSpace ? "ByteLevel" : "Escaped";
                         });

}  // namespace
