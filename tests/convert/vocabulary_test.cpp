#include "convert/vocabulary.h"

#include <gtest/gtest.h>

#include "convert/tokenizer_json.h"
#include "tokenizer/tokenizer.h"

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
}

TEST(Vocabulary, AnotherMarkForASpaceIsRefused) {
  Vocabulary vocabulary = sample();
  vocabulary.merges.emplace_back("\u2581 a");
  EXPECT_EQ(
      "tokenizer: the merge rule \"\u2581 a\" holds characters outside the byte alphabet; the "
      "runtime needs a byte-level vocabulary",
      refused(vocabulary));
  vocabulary = sample();
  vocabulary.tokens[3] = "\u2581a";
  EXPECT_EQ(
      "tokenizer: the token \"\u2581a\" marks a space with \"\u2581\"; the runtime needs a "
      "byte-level vocabulary, where \"\u0120\" does",
      refused(vocabulary));
  vocabulary.types[3] = 3;  // a special token is plain text
  EXPECT_EQ("", refused(vocabulary));
  vocabulary.tokens[0] = "\u0120b";
  EXPECT_EQ("tokenizer: no token is \"\u0120\", the space of a byte-level vocabulary",
            refused(vocabulary));
}

// The runtime asks the first rule alone. Ids must be those of the vocabulary's own rules all the
// same: of "ab" the pair of the lower rank, and no rule of the mark.
TEST(Vocabulary, ByteLevelVocabulariesMayBeginWithAnyRule) {
  Vocabulary vocabulary;
  vocabulary.tokens = {"\u0120", "a", "b", "c", "ab", "bc", "\u0120a", "\u010A"};
  vocabulary.types.assign(8, 1);
  for (const std::vector<std::string>& merges :
       {std::vector<std::string>{"a b", "b c", "\u0120 a"}, {"b c", "a b", "\u0120 a"}}) {
    vocabulary.merges = merges;
    for (const VocabularyForm form : {VocabularyForm::Alphabet, VocabularyForm::Raw}) {
      kel::Tokenizer tokenizer;
      ASSERT_TRUE(tokenizer.load(built(vocabulary, form, 8)).ok());
      const bool abFirst = merges.front() == "a b";
      std::vector<int32_t> ids;
      ASSERT_TRUE(tokenizer.encode("abc ab a  ", ids, false).ok());
      EXPECT_EQ(abFirst ? (std::vector<int32_t>{4, 3, 0, 4, 6, 0, 0})
                        : (std::vector<int32_t>{1, 5, 0, 4, 6, 0, 0}),
                ids);
    }
  }
  vocabulary.merges.clear();
  EXPECT_EQ(std::vector<std::string>{"\u0120 "}, built(vocabulary, VocabularyForm::Raw, 8).merges);
}

std::string jsonMessage(const std::string& text) {
  Vocabulary vocabulary;
  std::string normalizer;
  return parseTokenizerJson(text, vocabulary, normalizer).message;
}

TEST(TokenizerJson, TokensTypesAndMerges) {
  Vocabulary vocabulary;
  std::string normalizer;
  ASSERT_EQ("", parseTokenizerJson(R"({"model": {"type": "BPE", "vocab": {"b": 1, "a": 0},
                  "merges": [["a", "b"], "b a"]},
                  "added_tokens": [{"id": 4, "content": "<x>", "special": false},
                                   {"id": 1, "content": "b"}]})",
                                   vocabulary, normalizer)
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

TEST(TokenizerJson, TextHandlingThatTheRuntimeHasNotIsRefused) {
  const auto with = [](const std::string& file, const std::string& model = "") {
    return jsonMessage(R"({"model": {"vocab": {}, "merges": [])" + model + "}" + file + "}");
  };
  for (const char* kept : {"null", R"({"type": "NFC"})",
                           R"({"type": "Sequence", "normalizers": [{"type": "NFC"}]})"}) {
    EXPECT_EQ("", with(std::string(R"(, "normalizer": )") + kept));
  }
  EXPECT_EQ("tokenizer.json: the normalizer is \"Lowercase\"; the runtime needs \"NFC\", or none",
            with(R"(, "normalizer": {"type": "Lowercase"})"));
  EXPECT_EQ("tokenizer.json: the normalizer is \"Sequence\"; the runtime needs \"NFC\", or none",
            with(R"(, "normalizer": {"type": "Sequence", "normalizers": [{"type": "NFC"},
                 {"type": "Strip"}]})"));
  EXPECT_EQ("tokenizer.json: add_prefix_space is true; the runtime needs false",
            with(R"(, "pre_tokenizer": {"type": "Sequence", "pretokenizers": [{"type": "Split"},
                 {"type": "ByteLevel", "add_prefix_space": true}]})"));
  EXPECT_EQ("", with(R"(, "pre_tokenizer": {"type": "ByteLevel", "add_prefix_space": false})"));
  EXPECT_EQ("tokenizer.json: model.ignore_merges is true; the runtime needs false",
            with("", R"(, "ignore_merges": true)"));
  EXPECT_EQ("tokenizer.json: model.end_of_word_suffix is \"</w>\"; the runtime needs none",
            with("", R"(, "end_of_word_suffix": "</w>", "continuing_subword_prefix": "")"));
}

TEST(TokenizerJson, TheNormalizerIsToldApart) {
  const auto stated = [](const std::string& normalizer) {
    const std::string text = R"({"model": {"vocab": {}, "merges": []})" + normalizer + "}";
    Vocabulary vocabulary;
    std::string out = "untouched";
    EXPECT_EQ("", parseTokenizerJson(text, vocabulary, out).message);
    return out;
  };
  EXPECT_EQ("nfc", stated(R"(, "normalizer": {"type": "NFC"})"));
  EXPECT_EQ("nfc", stated(R"(, "normalizer": {"type": "Sequence", "normalizers": [null,
                             {"type": "NFC"}]})"));
  EXPECT_EQ("", stated(R"(, "normalizer": {"type": "Sequence", "normalizers": []})"));
  EXPECT_EQ("", stated(R"(, "normalizer": null)"));
  EXPECT_EQ("", stated(""));
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
