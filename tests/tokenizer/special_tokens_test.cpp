#include "tokenizer/special_tokens.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using kel::SpecialTokenFinder;
using kel::SpecialTokens;

TEST(SpecialTokens, LongerComesFirstThenAscendingBytes) {
  SpecialTokens tokens = {{"<|b|>", 0}, {"<|a|>", 1}, {"<|ab|>", 2}, {"<|\xC3|>", 3}};
  kel::sortSpecialTokens(tokens);
  EXPECT_EQ((SpecialTokens{{"<|ab|>", 2}, {"<|a|>", 1}, {"<|b|>", 0}, {"<|\xC3|>", 3}}), tokens);
}

TEST(SpecialTokens, EqualTextsStayInIdOrder) {
  SpecialTokens tokens = {{"x", 5}, {"x", 2}, {"x", 9}};
  kel::sortSpecialTokens(tokens);
  EXPECT_EQ((SpecialTokens{{"x", 2}, {"x", 5}, {"x", 9}}), tokens);
}

TEST(SpecialTokenFinder, EmptyListMatchesNothing) {
  SpecialTokenFinder finder;
  const auto match = finder.find({}, "text", 1);
  EXPECT_EQ(4U, match.begin);
  EXPECT_EQ(0U, match.size);
}

// The documented search: every position, every token in list order.
SpecialTokenFinder::Match findBySearch(const SpecialTokens& tokens, std::string_view text,
                                       size_t from) {
  for (size_t at = from; at < text.size(); ++at) {
    for (const auto& [token, id] : tokens) {
      if (text.substr(at, token.size()) == token) return {at, token.size(), id};
    }
  }
  return {text.size(), 0, -1};
}

TEST(SpecialTokenFinder, FindsWhatAFrontToBackScanFinds) {
  std::mt19937 rng(11);
  const auto randomText = [&rng](size_t maxSize, size_t minSize) {
    std::string text(minSize + rng() % (maxSize - minSize + 1), '<');
    for (char& c : text)
      c = "<|ab\xFF"[rng() % 5];
    return text;
  };
  for (int round = 0; round < 20000; ++round) {
    SpecialTokens tokens;
    const auto nTokens = static_cast<int32_t>(rng() % 8);
    for (int32_t id = 0; id < nTokens; ++id)
      tokens.emplace_back(randomText(4, 1), id);
    kel::sortSpecialTokens(tokens);
    SpecialTokenFinder finder;
    finder.build(tokens);
    const std::string text = randomText(12, 0);
    for (size_t from = 0; from <= text.size(); ++from) {
      const auto expected = findBySearch(tokens, text, from);
      const auto match = finder.find(tokens, text, from);
      ASSERT_EQ(expected.begin, match.begin) << text << " from " << from;
      ASSERT_EQ(expected.size, match.size) << text << " from " << from;
      ASSERT_EQ(expected.id, match.id) << text << " from " << from;
    }
  }
}

}  // namespace
