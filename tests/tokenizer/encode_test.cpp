#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "tests/tokenizer/reference_bpe.h"
#include "tests/tokenizer/vocabulary.h"
#include "tokenizer/tokenizer.h"

namespace {

using kel::Status;
using kel::StatusCode;
using kel::Tokenizer;
using kel::TokenizerData;
using kel::testing::byteTokens;
using kel::testing::encoded;
using kel::testing::kByteLevelRule;
using kel::testing::loaded;
using kel::testing::merged;
using kel::testing::strings;
using kel::testing::tables;
using Ids = std::vector<int32_t>;
using Strings = std::vector<std::string>;

TEST(TokenizeBpe, EmptyPieceAppendsNothing) {
  const Tokenizer tokenizer = loaded(tables({"a"}));
  Ids ids = {42};
  EXPECT_TRUE(tokenizer.tokenizeBpe("", ids).ok());
  EXPECT_EQ(Ids{42}, ids);
}

TEST(TokenizeBpe, AppendsAndNeverClears) {
  const Tokenizer tokenizer = loaded(tables({"a"}));
  Ids ids = {42};
  EXPECT_TRUE(tokenizer.tokenizeBpe("aa", ids).ok());
  EXPECT_EQ((Ids{42, 0, 0}), ids);
}

TEST(TokenizeBpe, UnknownSymbolBecomesUnkIdOrVanishes) {
  TokenizerData data = tables({"a", "<unk>"});
  data.unkId = 1;
  EXPECT_EQ((Ids{0, 1, 0}), merged(loaded(data), "axa"));
  EXPECT_EQ(Ids{1}, merged(loaded(data), "日"));
  data.unkId = 0;
  EXPECT_EQ(Ids{0}, merged(loaded(data), "x"));
  data.unkId = -1;
  EXPECT_EQ((Ids{0, 0}), merged(loaded(data), "axa"));
  EXPECT_EQ(Ids{}, merged(loaded(data), "日"));
}

TEST(TokenizeBpe, UnkIdNeedNotBeInTheVocabulary) {
  TokenizerData data = tables({"a"});
  data.unkId = 1000;
  EXPECT_EQ((Ids{1000, 0}), merged(loaded(std::move(data)), "xa"));
}

TEST(TokenizeBpe, TokenThatNoRuleReachesIsNotUsed) {
  const Tokenizer tokenizer = loaded(tables({"a", "b", "c", "abc", "ab"}, {"a b"}));
  EXPECT_EQ((Ids{4, 2}), merged(tokenizer, "abc"));
}

TEST(TokenizeBpe, NoFallbackToByteTokens) {
  TokenizerData data = tables({"<0xE6>", "\xE6", "<unk>"});
  data.unkId = 2;
  EXPECT_EQ(Ids{2}, merged(loaded(std::move(data)), "日"));
}

TEST(TokenizeBpe, CutCharacterTakesWhatRemains) {
  const Tokenizer tokenizer = loaded(tables({"\x80", "\xE2\x96", "a"}));
  EXPECT_EQ((Ids{0, 2, 1}), merged(tokenizer,
                                   "\x80"
                                   "a\xE2\x96"));
}

TEST(TokenizePlain, ByteLevelVocabularyMergesWordByWord) {
  TokenizerData data = tables(
      {"Hello", "Ġworld", "oĠ"},
      {"Ġ w", "H e", "He l", "Hel l", "Hell o", "Ġw o", "Ġwo r", "Ġwor l", "Ġworl d", "o Ġ"});
  EXPECT_EQ((Ids{0, 1}), encoded(loaded(std::move(data)), "Hello world"));
}

TEST(TokenizePlain, OtherVocabularyMergesTheWholeRun) {
  const Tokenizer tokenizer = loaded(tables({"a▁", "▁b", "a▁▁b"}, {"a ▁", "▁ b", "a▁ ▁b"}));
  EXPECT_EQ(Ids{2}, encoded(tokenizer, "a  b"));
}

// The caller has escaped the text: here it is neither cut into words nor escaped.
TEST(TokenizePlain, OtherVocabularyTakesTheTextAsItStands) {
  const Tokenizer tokenizer = loaded(tables({"x", "!", " ", "x▁!x", "▁"}, {"x ▁", "! x", "x▁ !x"}));
  Ids ids = {9};
  EXPECT_TRUE(tokenizer.tokenizePlain("x▁!x", ids).ok());
  EXPECT_TRUE(tokenizer.tokenizePlain("x !", ids).ok());
  EXPECT_EQ((Ids{9, 3, 0, 2, 1}), ids);
}

TEST(TokenizePlain, ByteLevelWordsNeverMergeAcrossTheirBorder) {
  const Tokenizer tokenizer =
      loaded(tables({"a", "b", "Ġ", "ĠĠ", "Ġb", "ĠĠb"}, {"Ġ Ġ", "Ġ b", "ĠĠ b"}));
  EXPECT_EQ((Ids{0, 3, 1}), encoded(tokenizer, "a  b"));
}

TEST(TokenizePlain, EmptyTextAppendsNothing) {
  for (const char* rule : {kByteLevelRule, "a b"}) {
    Ids ids = {5};
    EXPECT_TRUE(loaded(tables({"a"}, {rule})).tokenizePlain("", ids).ok());
    EXPECT_EQ(Ids{5}, ids);
  }
}

TEST(TokenizePlain, OtherWhitespaceIsLeftAsItIs) {
  const Tokenizer tokenizer = loaded(tables({"\t", "x"}, {kByteLevelRule}));
  EXPECT_EQ((Ids{0, 1}), encoded(tokenizer, "\tx"));
}

Tokenizer chatTokenizer(const char* firstRule = kByteLevelRule) {
  Strings tokens = byteTokens();
  for (const char* special : {"<|im_start|>", "<|im_end|>", "<|a|>", "<|a|>b"}) {
    tokens.emplace_back(special);
  }
  std::vector<int32_t> types(256, 1);
  types.insert(types.end(), {3, 3, 3, 2});
  return loaded(tables(std::move(tokens), {firstRule}, std::move(types)));
}

TEST(TokenizeSegment, SpecialTokensAreFoundBetweenText) {
  EXPECT_EQ((Ids{'x', 257, 'y'}), encoded(chatTokenizer(), "x<|im_end|>y"));
  EXPECT_EQ((Ids{256, 257, 256}), encoded(chatTokenizer(), "<|im_start|><|im_end|><|im_start|>"));
}

TEST(TokenizeSegment, LongestSpecialTokenWins) {
  EXPECT_EQ(Ids{259}, encoded(chatTokenizer(), "<|a|>b"));
  EXPECT_EQ((Ids{258, 'c'}), encoded(chatTokenizer(), "<|a|>c"));
}

TEST(TokenizeSegment, IncompleteSpecialTokenIsPlainText) {
  const Tokenizer tokenizer = chatTokenizer();
  EXPECT_EQ((Strings{"<", "|", "i", "m", "_", "s", "t", "a", "r", "t", "|"}),
            strings(tokenizer, encoded(tokenizer, "<|im_start|")));
}

TEST(TokenizeSegment, MatchingIsExact) {
  EXPECT_EQ(10U, encoded(chatTokenizer(), "<|IM_END|>").size());
  EXPECT_EQ((Ids{'<', 257}), encoded(chatTokenizer(), "<<|im_end|>"));
}

TEST(TokenizeSegment, AppendsAndNeverClears) {
  Ids ids = {1};
  EXPECT_TRUE(chatTokenizer().tokenizeSegment("", ids).ok());
  EXPECT_TRUE(chatTokenizer().tokenizeSegment("<|im_end|>", ids).ok());
  EXPECT_EQ((Ids{1, 257}), ids);
}

TEST(TokenizeSegment, RunOfNewlinesIsLookedUpWhole) {
  const Tokenizer tokenizer = loaded(tables({"\n", "\n\n"}, {kByteLevelRule}));
  Ids ids;
  EXPECT_TRUE(tokenizer.tokenizeSegment("\n\n", ids).ok());
  EXPECT_EQ(Ids{1}, ids);
  ids.clear();
  EXPECT_TRUE(tokenizer.tokenizeSegment("\n\n\n", ids).ok());
  EXPECT_EQ((Ids{0, 0, 0}), ids);
}

// The token of the newline comes before a special token of the same text.
TEST(TokenizeSegment, NewlineTokenIsFoundBeforeSpecialTokens) {
  const Tokenizer tokenizer = loaded(tables({"a", "\n", "\n"}, {}, {1, 1, 3}));
  EXPECT_EQ(Ids{1}, encoded(tokenizer, "\n"));
}

// A space is escaped before the search in a "▁" vocabulary, after it in a "Ġ" vocabulary.
TEST(TokenizeSegment, SpecialTokenWithSpaceMatchesInByteLevelVocabulariesOnly) {
  const TokenizerData data = tables({"a", "<s x>"}, {kByteLevelRule}, {1, 3});
  EXPECT_EQ((Ids{0, 1}), encoded(loaded(data), "a<s x>"));
  TokenizerData other = data;
  other.merges.clear();
  EXPECT_EQ(Ids{0}, encoded(loaded(std::move(other)), "a<s x>"));
}

TEST(TokenizeSegment, EqualsTheDocumentedScanOnRandomText) {
  const Tokenizer tokenizer = loaded([] {
    Strings tokens = byteTokens();
    std::vector<int32_t> types(256, 1);
    for (const char* special : {"<", "<<a", "a<", "aba", "ba<a"}) {
      tokens.emplace_back(special);
      types.push_back(3);
    }
    return tables(std::move(tokens), {}, std::move(types));
  }());
  std::mt19937 rng(3);
  for (int round = 0; round < 20000; ++round) {
    std::string text(rng() % 20, 'a');
    for (char& c : text) {
      c = "a<b"[rng() % 3];
    }
    Ids expected;
    for (size_t at = 0; at < text.size();) {
      const auto matches = [&](const auto& token) {
        return text.compare(at, token.first.size(), token.first) == 0;
      };
      const auto found =
          std::find_if(tokenizer.specialTokens.begin(), tokenizer.specialTokens.end(), matches);
      const bool special = found != tokenizer.specialTokens.end();
      expected.push_back(special ? found->second : static_cast<unsigned char>(text[at]));
      at += special ? found->first.size() : 1;
    }
    ASSERT_EQ(expected, encoded(tokenizer, text)) << text;
  }
}

TEST(Encode, UnloadedTokenizerFailsAndLeavesIdsUntouched) {
  Ids ids = {1, 2};
  const Status status = Tokenizer().encode("a", ids, true);
  EXPECT_EQ(StatusCode::InvalidFormat, status.code);
  EXPECT_EQ("tokenizer: not loaded", status.message);
  EXPECT_EQ((Ids{1, 2}), ids);
}

TEST(Encode, BosComesFirstWhenAskedForAndKnown) {
  TokenizerData data = tables({"a", "<s>"});
  data.bosId = 1;
  EXPECT_EQ(Ids{1}, encoded(loaded(data), "", true));
  EXPECT_EQ((Ids{1, 0}), encoded(loaded(data), "a", true));
  EXPECT_EQ(Ids{}, encoded(loaded(data), "", false));
  data.bosId = 0;
  EXPECT_EQ(Ids{0}, encoded(loaded(data), "", true));
  data.bosId = 77;  // carried as it is, in the vocabulary or not
  EXPECT_EQ(Ids{77}, encoded(loaded(data), "", true));
  data.bosId = -1;
  EXPECT_EQ(Ids{}, encoded(loaded(data), "", true));
}

TEST(Encode, IdsAreClearedFirst) {
  Ids ids = {9, 9};
  EXPECT_TRUE(loaded(tables({"a"})).encode("a", ids, false).ok());
  EXPECT_EQ(Ids{0}, ids);
}

TEST(Encode, NewlinesAreSegmentsOfTheirOwn) {
  const Tokenizer tokenizer =
      loaded(tables({"a", "\n", "b", "\n\n", "a\n"}, {"\n \n", "a \n", "\n b"}));
  EXPECT_EQ((Ids{0, 1, 1, 2}), encoded(tokenizer, "a\n\nb"));
  EXPECT_EQ((Ids{0, 1}), encoded(tokenizer, "a\n"));
  EXPECT_EQ((Ids{1, 0}), encoded(tokenizer, "\na"));
  EXPECT_EQ((Ids{1, 1, 1}), encoded(tokenizer, "\n\n\n"));
}

TEST(Encode, NewlineThatIsNoTokenGoesTheWayOfOtherText) {
  TokenizerData data = tables({"a", "<unk>"});
  data.unkId = 1;
  EXPECT_EQ((Ids{0, 1, 0}), encoded(loaded(std::move(data)), "a\na"));
}

TEST(Encode, AnyBytesEncode) {
  std::string text;
  for (int byte = 0; byte < 256; ++byte) {
    text += static_cast<char>(byte);
  }
  for (const char* rule : {kByteLevelRule, "a b"}) {
    const Tokenizer tokenizer = loaded(tables(byteTokens(), {rule}));
    const Ids ids = encoded(tokenizer, std::string("\0\0", 2));
    EXPECT_EQ((Ids{0, 0}), ids);
    EXPECT_FALSE(encoded(tokenizer, text).empty());
    std::mt19937 rng(5);
    for (int round = 0; round < 2000; ++round) {
      std::string noise(rng() % 40, '\0');
      for (char& c : noise) {
        c = static_cast<char>(rng());
      }
      encoded(tokenizer, noise);
    }
  }
}

// Ten megabytes; less where sanitizers or missing optimisation make it a matter of minutes.
#ifdef NDEBUG
constexpr size_t kHugeBytes = 10'000'000;
#else
constexpr size_t kHugeBytes = 500'000;
#endif

class EncodeHugeText : public ::testing::TestWithParam<const char*> {
 protected:
  static size_t nIds(char repeated) {
    const Tokenizer tokenizer =
        loaded(tables({"a", "\n", "▁", "Ġ", "<|im_end|>"}, {GetParam()}, {1, 1, 1, 1, 3}));
    const Ids ids = encoded(tokenizer, std::string(kHugeBytes, repeated));
    EXPECT_TRUE(std::equal(ids.begin() + (ids.empty() ? 0 : 1), ids.end(), ids.begin()));
    return ids.size();
  }
};

TEST_P(EncodeHugeText, OneLetter) {
  EXPECT_EQ(kHugeBytes, nIds('a'));
}
TEST_P(EncodeHugeText, OnlySpaces) {
  EXPECT_EQ(kHugeBytes, nIds(' '));
}
TEST_P(EncodeHugeText, OnlyNewlines) {
  EXPECT_EQ(kHugeBytes, nIds('\n'));
}
TEST_P(EncodeHugeText, OnlyStartsOfSpecialTokens) {
  EXPECT_EQ(0U, nIds('<'));
}

INSTANTIATE_TEST_SUITE_P(SpaceMarkers, EncodeHugeText, ::testing::Values(kByteLevelRule, "▁ z"),
                         [](const auto& rule) {
                           return rule.index == 0 ? "ByteLevel" : "Escaped";
                         });

TEST(Encode, LongRunMergesToItsLongestTokens) {
  Strings tokens = {"a"};
  Strings merges;
  for (int i = 0; i < 6; ++i) {
    merges.push_back(tokens.back() + " " + tokens.back());
    tokens.push_back(tokens.back() + tokens.back());
  }
  const Tokenizer tokenizer = loaded(tables(std::move(tokens), std::move(merges)));
  EXPECT_EQ(Ids(4096, 6), encoded(tokenizer, std::string(64 * 4096, 'a')));
}

TEST(Encode, OddVocabularyLoadsAndEncodes) {
  TokenizerData data =
      tables({"", "a", "a", "", "b"}, {"", "ab", " ", "a b", "  ", "a b c"}, {1, 2});
  data.bosId = -7;
  data.eosId = 1 << 30;
  data.unkId = INT32_MAX;
  EXPECT_EQ((Ids{INT32_MAX, 1}), encoded(loaded(std::move(data)), "aba", true));
}

std::string decoded(const Tokenizer& tokenizer, const Ids& ids) {
  std::string text = "before";
  EXPECT_TRUE(tokenizer.decode(ids, text).ok());
  return text;
}

TEST(Decode, UnloadedTokenizerFails) {
  std::string text = "before";
  const Status status = Tokenizer().decode({}, text);
  EXPECT_EQ(StatusCode::InvalidFormat, status.code);
  EXPECT_EQ("tokenizer: not loaded", status.message);
  EXPECT_EQ("before", text);
}

TEST(Decode, EmptyListGivesEmptyText) {
  EXPECT_EQ("", decoded(loaded(tables({"a"})), {}));
}

TEST(Decode, MarkersBecomeSpacesAndNothingIsStripped) {
  EXPECT_EQ(" Hello world", decoded(loaded(tables({"▁Hello", "▁world"})), {0, 1}));
}

TEST(Decode, ByteLevelMarkersStay) {
  EXPECT_EQ("Ġworld x", decoded(loaded(tables({"Ġworld", "▁x"}, {"Ġ w"})), {0, 1}));
}

TEST(Decode, SpecialTokensKeepTheirText) {
  const Tokenizer tokenizer = loaded(tables({"<▁>", "<▁▁>", "▁"}, {}, {3, 2, 1}));
  EXPECT_EQ("<▁><▁▁> ", decoded(tokenizer, {0, 1, 2}));
}

TEST(Decode, MarkerSplitOverTwoTokensStays) {
  EXPECT_EQ("\xE2\x96\x81", decoded(loaded(tables({"\xE2\x96", "\x81"})), {0, 1}));
}

TEST(Decode, BadIdFailsAndLeavesWhatCameBefore) {
  const Tokenizer tokenizer = loaded(tables({"a", "b"}));
  for (const int32_t bad : {-1, 2, INT32_MAX, INT32_MIN}) {
    std::string text = "before";
    const Status status = tokenizer.decode({1, bad, 0}, text);
    EXPECT_EQ(StatusCode::InvalidFormat, status.code) << bad;
    EXPECT_EQ("tokenizer: token id out of range", status.message) << bad;
    EXPECT_EQ("b", text) << bad;
  }
}

}  // namespace
