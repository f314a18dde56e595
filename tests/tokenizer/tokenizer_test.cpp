#include "tokenizer/tokenizer.h"

#include <gtest/gtest.h>

#include "tests/tokenizer/vocabulary.h"

namespace {

using kel::SpecialTokens;
using kel::Status;
using kel::StatusCode;
using kel::Tokenizer;
using kel::TokenizerData;
using kel::testing::encoded;
using kel::testing::loaded;
using kel::testing::tables;

TEST(TokenizerLoad, EmptyTokenListIsRefusedAndChangesNothing) {
  Tokenizer tokenizer = loaded(tables({"a"}));
  TokenizerData empty = tables({}, {"Ġ t"});
  empty.bosId = 7;
  const Status status = tokenizer.load(std::move(empty));
  EXPECT_EQ(StatusCode::InvalidFormat, status.code);
  EXPECT_EQ("tokenizer: empty token list", status.message);
  EXPECT_EQ(0, tokenizer.tokenToId("a"));
  EXPECT_EQ(-1, tokenizer.bosId);
  EXPECT_TRUE(tokenizer.merges.empty());
}

TEST(TokenizerLoad, EveryFieldIsTakenOver) {
  TokenizerData data = tables({"a", "b"}, {"a b"}, {1, 3});
  data.auxValues = {4, 5, 6};
  data.bosId = 1;
  data.eosId = 2;
  data.unkId = 3;
  data.extraId = 4;
  data.flag = true;
  data.label = "demo";
  const Tokenizer tokenizer = loaded(std::move(data));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), tokenizer.tokens);
  EXPECT_EQ((std::vector<int32_t>{4, 5, 6}), tokenizer.auxValues);
  EXPECT_EQ((std::vector<int32_t>{1, 3}), tokenizer.tokenTypes);
  EXPECT_EQ((std::vector<std::string>{"a b"}), tokenizer.merges);
  EXPECT_EQ(1, tokenizer.bosId);
  EXPECT_EQ(2, tokenizer.eosId);
  EXPECT_EQ(3, tokenizer.unkId);
  EXPECT_EQ(4, tokenizer.extraId);
  EXPECT_TRUE(tokenizer.flag);
  EXPECT_EQ("demo", tokenizer.label);
}

TEST(TokenizerLoad, TablesAreMovedNotCopied) {
  TokenizerData data = tables({"a", "b"}, {"a b"});
  const std::string* const tokens = data.tokens.data();
  const std::string* const merges = data.merges.data();
  const Tokenizer tokenizer = loaded(std::move(data));
  EXPECT_EQ(tokens, tokenizer.tokens.data());
  EXPECT_EQ(merges, tokenizer.merges.data());
}

TEST(TokenizerLoad, SecondLoadReplacesTheFirst) {
  Tokenizer tokenizer = loaded(tables({"a", "<s>"}, {"Ġ t"}, {1, 3}));
  ASSERT_TRUE(tokenizer.load(tables({"b"})).ok());
  EXPECT_EQ(-1, tokenizer.tokenToId("a"));
  EXPECT_EQ(0, tokenizer.tokenToId("b"));
  EXPECT_FALSE(tokenizer.byteLevel);
  EXPECT_TRUE(tokenizer.mergeRanks.empty());
  EXPECT_TRUE(tokenizer.specialTokens.empty());
}

TEST(TokenizerLoad, MovedTokenizerKeepsItsIndexes) {
  Tokenizer first = loaded(tables({"a", "b", "ab", "<s>"}, {"a b"}, {1, 1, 1, 3}));
  const Tokenizer second = std::move(first);
  EXPECT_EQ((std::vector<int32_t>{2, 3}), encoded(second, "ab<s>"));
}

bool byteLevelWith(std::vector<std::string> merges) {
  return loaded(tables({"a"}, std::move(merges))).byteLevel;
}

TEST(TokenizerIndexes, VocabularyWithoutMergesIsNotByteLevel) {
  EXPECT_FALSE(byteLevelWith({}));
}

TEST(TokenizerIndexes, FirstMergeAloneDecidesTheSpaceMarker) {
  EXPECT_TRUE(byteLevelWith({"Ġ t"}));
  EXPECT_TRUE(byteLevelWith({"Ġ t", "▁ t"}));
  EXPECT_FALSE(byteLevelWith({"▁ t"}));
  EXPECT_FALSE(byteLevelWith({"Ġ▁"}));
  EXPECT_FALSE(byteLevelWith({"a b", "Ġ t"}));
  EXPECT_FALSE(byteLevelWith({"", "Ġ t"}));
}

TEST(TokenizerIndexes, LowestIdOfEqualTokensWins) {
  const Tokenizer tokenizer = loaded(tables({"x", "dup", "dup"}));
  EXPECT_EQ(1, tokenizer.tokenToId("dup"));
}

TEST(TokenizerIndexes, LowestRankOfEqualRulesWins) {
  const Tokenizer tokenizer = loaded(tables({"x"}, {"b c", "a b", "b c"}));
  EXPECT_EQ(0, tokenizer.mergeRanks.find("b c"));
  EXPECT_EQ(2U, tokenizer.mergeRanks.size());
}

TEST(TokenizerIndexes, TypesTwoAndThreeAreSpecial) {
  const Tokenizer tokenizer =
      loaded(tables({"zero", "one", "two", "3", "four", "neg"}, {}, {0, 1, 2, 3, 4, -2}));
  EXPECT_EQ((SpecialTokens{{"two", 2}, {"3", 3}}), tokenizer.specialTokens);
}

TEST(TokenizerIndexes, SpecialTokensAreOrderedLongestFirstThenByBytes) {
  const Tokenizer tokenizer = loaded(tables({"<|b|>", "<|a|>", "<|ab|>"}, {}, {3, 3, 3}));
  EXPECT_EQ((SpecialTokens{{"<|ab|>", 2}, {"<|a|>", 1}, {"<|b|>", 0}}), tokenizer.specialTokens);
}

TEST(TokenizerIndexes, EmptySpecialTokenIsSkipped) {
  const Tokenizer tokenizer = loaded(tables({"", "<s>", "a"}, {}, {3, 3, 1}));
  EXPECT_EQ((SpecialTokens{{"<s>", 1}}), tokenizer.specialTokens);
  EXPECT_EQ((std::vector<int32_t>{2, 1, 2}), encoded(tokenizer, "a<s>a"));
}

TEST(TokenizerIndexes, TypeListOfTheWrongLengthIsDropped) {
  std::vector<std::string> tokens = kel::testing::byteTokens();
  tokens.emplace_back("<|im_start|>");
  for (const size_t nTypes : {tokens.size() - 1, tokens.size() + 1}) {
    const Tokenizer tokenizer = loaded(tables(tokens, {}, std::vector<int32_t>(nTypes, 3)));
    EXPECT_TRUE(tokenizer.tokenTypes.empty());
    EXPECT_TRUE(tokenizer.specialTokens.empty());
    EXPECT_EQ(12U, encoded(tokenizer, "<|im_start|>").size());
  }
}

TEST(TokenizerIndexes, RebuildFollowsChangedTables) {
  Tokenizer tokenizer = loaded(tables({"a", "b"}, {}, {1, 1}));
  tokenizer.tokens = {"c", "Ġ", "<s>"};
  tokenizer.tokenTypes = {1, 1, 2};
  tokenizer.merges = {"Ġ c"};
  ASSERT_TRUE(tokenizer.buildIndexes().ok());
  EXPECT_TRUE(tokenizer.byteLevel);
  EXPECT_EQ(-1, tokenizer.tokenToId("a"));
  EXPECT_EQ(0, tokenizer.tokenToId("c"));
  EXPECT_EQ(0, tokenizer.mergeRanks.find("Ġ c"));
  EXPECT_EQ((SpecialTokens{{"<s>", 2}}), tokenizer.specialTokens);

  tokenizer.tokenTypes.pop_back();
  ASSERT_TRUE(tokenizer.buildIndexes().ok());
  EXPECT_TRUE(tokenizer.specialTokens.empty());
}

TEST(TokenizerLookup, EmptyStringIsATokenOnlyWhenTheVocabularyHasIt) {
  EXPECT_EQ(1, loaded(tables({"a", ""})).tokenToId(""));
  EXPECT_EQ(-1, loaded(tables({"a"})).tokenToId(""));
}

TEST(TokenizerLookup, TokenStringComesAsStored) {
  const Tokenizer tokenizer = loaded(tables({"▁a", std::string("n\0l", 3)}));
  std::string out;
  ASSERT_TRUE(tokenizer.tokenToString(0, out).ok());
  EXPECT_EQ("▁a", out);
  ASSERT_TRUE(tokenizer.tokenToString(1, out).ok());
  EXPECT_EQ(std::string("n\0l", 3), out);
  EXPECT_EQ(1, tokenizer.tokenToId(out));
}

TEST(TokenizerLookup, IdOutOfRangeLeavesTheOutputUntouched) {
  const Tokenizer tokenizer = loaded(tables({"a", "b"}));
  for (const int id : {-1, 2, INT32_MAX, INT32_MIN}) {
    std::string out = "before";
    const Status status = tokenizer.tokenToString(id, out);
    EXPECT_EQ(StatusCode::InvalidFormat, status.code) << id;
    EXPECT_EQ("tokenizer: token id out of range", status.message) << id;
    EXPECT_EQ("before", out) << id;
  }
}

TEST(TokenizerLookup, UnloadedTokenizerKnowsNothing) {
  const Tokenizer tokenizer;
  std::string out;
  EXPECT_EQ(-1, tokenizer.tokenToId("a"));
  EXPECT_EQ("tokenizer: token id out of range", tokenizer.tokenToString(0, out).message);
}

}  // namespace
