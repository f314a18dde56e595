#include "convert/vocabulary.h"

#include <gtest/gtest.h>

#include "convert/tokenizer_json.h"

namespace {

using kel::TokenizerData;
using kel::convert::Vocabulary;
using kel::convert::VocabularyForm;

Vocabulary sample() {
  Vocabulary v;
  v.tokens = {"\u0120", "\u010A", "\u00C3\u00A9", "\u0120a", "<|im_end|>", "<think>", "<|end|>"};
  v.types = {1, 1, 1, 1, 3, 4, 3};
  v.merges = {"\u0120 a", "\u00C3 \u00A9"};
  v.eosId = 6;
  return v;
}

TokenizerData built(const Vocabulary& vocabulary, VocabularyForm form = VocabularyForm::Alphabet,
                    uint64_t rows = 7) {
  TokenizerData tables;
  const kel::Status status = buildTokenizer(vocabulary, rows, form, tables);
  EXPECT_TRUE(status.ok()) << status.message;
  return tables;
}

std::string refused(const Vocabulary& vocabulary, uint64_t rows = 7) {
  TokenizerData tables;
  return buildTokenizer(vocabulary, rows, VocabularyForm::Alphabet, tables).message;
}

TEST(ByteAlphabet, RawTextKeepsTheSpaceLetter) {
  EXPECT_EQ("\u0120\u00E9\n\t", kel::convert::rawText("\u0120\u00C3\u00A9\u010A\u0109"));
  EXPECT_EQ(std::string("\0", 1), kel::convert::rawText("\u0100"));
  // Outside the alphabet, or no UTF-8: as it is.
  EXPECT_EQ("\u4E2D \u2581", kel::convert::rawText("\u4E2D \u2581"));
  EXPECT_EQ("\xC4", kel::convert::rawText("\xC4"));
  EXPECT_EQ("\xC4\x41", kel::convert::rawText("\xC4\x41"));
}

TEST(Vocabulary, AlphabetFormChangesTheLineFeedAlone) {
  const TokenizerData tables = built(sample());
  EXPECT_EQ("alphabet", tables.label);
  EXPECT_EQ((std::vector<std::string>{"\u0120", "\n", "\u00C3\u00A9", "\u0120a", "<|im_end|>",
                                      "<think>", "<|end|>"}),
            tables.tokens);
  EXPECT_EQ(sample().merges, tables.merges);
}

TEST(Vocabulary, RawFormHoldsBytes) {
  const TokenizerData tables = built(sample(), VocabularyForm::Raw);
  EXPECT_EQ("raw", tables.label);
  EXPECT_EQ((std::vector<std::string>{"\u0120", "\n", "\u00E9", "\u0120a", "<|im_end|>", "<think>",
                                      "<|end|>"}),
            tables.tokens);
  EXPECT_EQ((std::vector<std::string>{"\u0120 a", "\xC3 \xA9"}), tables.merges);
}

TEST(Vocabulary, UserDefinedTokensAreMatchedWhole) {
  EXPECT_EQ((std::vector<int32_t>{1, 1, 1, 1, 3, 3, 3}), built(sample()).tokenTypes);
}

TEST(Vocabulary, PaddingRowsAreUnusedTokens) {
  const TokenizerData tables = built(sample(), VocabularyForm::Alphabet, 9);
  EXPECT_EQ("[PAD7]", tables.tokens[7]);
  EXPECT_EQ("[PAD8]", tables.tokens[8]);
  EXPECT_EQ(5, tables.tokenTypes[8]);
}

TEST(Vocabulary, EndTokenOfAChatModelIsTheTurnsEnd) {
  Vocabulary vocabulary = sample();
  EXPECT_EQ(6, built(vocabulary).eosId);
  vocabulary.chat = true;
  EXPECT_EQ(4, built(vocabulary).eosId);
  vocabulary.tokens[4] = "<|other|>";
  EXPECT_EQ(6, built(vocabulary).eosId);
}

TEST(Vocabulary, BeginningTokenNeedsBothIdAndWish) {
  Vocabulary vocabulary = sample();
  vocabulary.bosId = 3;
  EXPECT_EQ(-1, built(vocabulary).bosId);
  vocabulary.addBos = true;
  EXPECT_EQ(3, built(vocabulary).bosId);
  vocabulary.bosId = -1;
  EXPECT_EQ(-1, built(vocabulary).bosId);
}

TEST(Vocabulary, WhatTheRuntimeWouldMisreadIsRefused) {
  Vocabulary vocabulary = sample();
  EXPECT_EQ("tokenizer: 7 tokens, but token_embd.weight has 6 rows", refused(vocabulary, 6));
  EXPECT_EQ("token_embd.weight has 4194305 rows; the importer takes at most 4194304",
            refused(vocabulary, 4194305));
  vocabulary.eosId = 7;
  EXPECT_EQ("tokenizer: the end token is 7, but there are 7 tokens", refused(vocabulary));
  vocabulary.eosId = 6;
  for (const std::vector<std::string>& merges :
       {std::vector<std::string>{}, {"a b"}, {"\u0120 \u2581"}}) {
    vocabulary.merges = merges;
    EXPECT_NE(std::string::npos, refused(vocabulary).find("begins with a rule that holds")) << "";
  }
}

std::string jsonMessage(const std::string& text) {
  Vocabulary vocabulary;
  return parseTokenizerJson(text, vocabulary).message;
}

TEST(TokenizerJson, TokensTypesAndMerges) {
  Vocabulary vocabulary;
  ASSERT_EQ("", parseTokenizerJson(R"({"model": {"type": "BPE", "vocab": {"b": 1, "a": 0},
                  "merges": [["a", "b"], "b a"]},
                  "added_tokens": [{"id": 4, "content": "<x>", "special": false},
                                   {"id": 1, "content": "b"}]})",
                                   vocabulary)
                    .message);
  EXPECT_EQ((std::vector<std::string>{"a", "b", "[PAD2]", "[PAD3]", "<x>"}), vocabulary.tokens);
  EXPECT_EQ((std::vector<int32_t>{1, 3, 5, 5, 3}), vocabulary.types);
  EXPECT_EQ((std::vector<std::string>{"a b", "b a"}), vocabulary.merges);
}

TEST(TokenizerJson, FaultsAreNamed) {
  const auto with = [](const std::string& vocab, const std::string& merges,
                       const std::string& added) {
    return jsonMessage(R"({"model": {"vocab": )" + vocab + R"(, "merges": )" + merges +
                       R"(}, "added_tokens": )" + added + "}");
  };
  EXPECT_EQ("", with("{}", "[]", "[]"));
  EXPECT_EQ("tokenizer.json: no model with vocab and merges", jsonMessage("[]"));
  EXPECT_EQ("tokenizer.json: no model with vocab and merges", with("[]", "[]", "[]"));
  EXPECT_EQ("tokenizer.json: no model with vocab and merges", with("{}", "{}", "[]"));
  EXPECT_EQ("tokenizer.json: added_tokens is not a list", with("{}", "[]", "{}"));
  EXPECT_EQ("tokenizer.json: an added token lacks its content or id", with("{}", "[]", "[{}]"));
  for (const char* id : {"-1", "1.5", "\"1\"", "70000", "18446744073709551615"}) {
    EXPECT_EQ("tokenizer.json: the id of \"a\" is not in range",
              with(std::string(R"({"a": )") + id + "}", "[]", "[]"));
  }
  EXPECT_EQ("tokenizer.json: \"a\" and \"b\" have the same id 0",
            with(R"({"a": 0, "b": 0})", "[]", "[]"));
  for (const char* rule : {"\"ab\"", "\"a b c\"", "[\"a\"]", "[1, 2]", "7"}) {
    EXPECT_EQ("tokenizer.json: merge rule 0 is not a pair",
              with("{}", std::string("[") + rule + "]", "[]"));
  }
  EXPECT_EQ("tokenizer.json: model.type is \"Unigram\"; the runtime needs \"BPE\"",
            jsonMessage(R"({"model": {"type": "Unigram", "vocab": {}, "merges": []}})"));
}

TEST(TokenizerJson, EveryTruncationIsRefused) {
  const std::string whole = R"({"model": {"type": "BPE", "vocab": {"a": 0}, "merges": ["a a"]}})";
  for (size_t n = 0; n < whole.size(); ++n)
    EXPECT_NE("", jsonMessage(whole.substr(0, n))) << n;
  EXPECT_EQ("", jsonMessage(whole));
}

TEST(TokenizerJson, WildIdsReserveNothing) {
  EXPECT_EQ("tokenizer.json: the id of \"a\" is not in range",
            jsonMessage(R"({"model": {"vocab": {"a": 4000000000}, "merges": []}})"));
}

}  // namespace
