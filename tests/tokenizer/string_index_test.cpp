#include "tokenizer/string_index.h"

#include <gtest/gtest.h>

#include <random>
#include <unordered_map>

namespace {

using kel::StringIndex;
using Strings = std::vector<std::string>;

TEST(StringIndex, EmptyIndexFindsNothing) {
  StringIndex index;
  EXPECT_EQ(StringIndex::kAbsent, index.find(""));
  EXPECT_EQ(StringIndex::kAbsent, index.findPair("a", "b"));
  EXPECT_TRUE(index.empty());
}

TEST(StringIndex, FirstOfEqualStringsCounts) {
  const Strings strings = {"x", "dup", "", "dup", ""};
  StringIndex index;
  index.build(strings);
  EXPECT_EQ(1, index.find("dup"));
  EXPECT_EQ(2, index.find(""));
  EXPECT_EQ(3U, index.size());
  EXPECT_EQ(StringIndex::kAbsent, index.find("du"));
}

TEST(StringIndex, KeysAreBytesWithNulAndCase) {
  const Strings strings = {std::string("a\0b", 3), "a", "A", "\xFF"};
  StringIndex index;
  index.build(strings);
  EXPECT_EQ(0, index.find(std::string("a\0b", 3)));
  EXPECT_EQ(1, index.find("a"));
  EXPECT_EQ(2, index.find("A"));
  EXPECT_EQ(3, index.find("\xFF"));
}

TEST(StringIndex, PairEqualsItsJoinedText) {
  const Strings strings = {"ab", "a b", " ", "a ", "a  b", " b"};
  StringIndex index;
  index.build(strings);
  EXPECT_EQ(1, index.findPair("a", "b"));
  EXPECT_EQ(2, index.findPair("", ""));
  EXPECT_EQ(3, index.findPair("a", ""));
  EXPECT_EQ(4, index.findPair("a ", "b"));
  EXPECT_EQ(4, index.findPair("a", " b"));
  EXPECT_EQ(5, index.findPair("", "b"));
  EXPECT_EQ(StringIndex::kAbsent, index.findPair("b", "a"));
}

TEST(StringIndex, SecondBuildReplacesTheFirst) {
  const Strings first = {"a", "b", "c"};
  const Strings second = {"c"};
  StringIndex index;
  index.build(first);
  index.build(second);
  EXPECT_EQ(0, index.find("c"));
  EXPECT_EQ(StringIndex::kAbsent, index.find("a"));
  index.build({});
  EXPECT_EQ(StringIndex::kAbsent, index.find("c"));
}

TEST(StringIndex, AgreesWithAStandardMap) {
  std::mt19937 rng(17);
  const auto randomString = [&rng] {
    std::string s(rng() % 7, ' ');
    for (char& c : s)
      c = " abc"[rng() % 4];
    return s;
  };
  Strings strings(5000);
  std::unordered_map<std::string, int32_t> map;
  for (size_t i = 0; i < strings.size(); ++i) {
    strings[i] = randomString();
    map.try_emplace(strings[i], static_cast<int32_t>(i));
  }
  StringIndex index;
  index.build(strings);
  EXPECT_EQ(map.size(), index.size());
  const auto expected = [&map](const std::string& key) {
    const auto found = map.find(key);
    return found == map.end() ? StringIndex::kAbsent : found->second;
  };
  for (int i = 0; i < 20000; ++i) {
    const std::string left = randomString();
    const std::string right = randomString();
    ASSERT_EQ(expected(left), index.find(left)) << left;
    ASSERT_EQ(expected(left + " " + right), index.findPair(left, right)) << left << "|" << right;
  }
}

}  // namespace
