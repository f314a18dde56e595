#include "tokenizer/string_index.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <random>
#include <set>
#include <unordered_map>

namespace {

using kel::StringIndex;
using Strings = std::vector<std::string>;

// A hash without a seed, which a writer of files could compute.
uint64_t fnv1a(std::string_view bytes) {
  uint64_t hash = 0xCBF29CE484222325U;
  for (const char c : bytes) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
  }
  return (hash ^ hash >> 32U) * 0x9E3779B97F4A7C15U;
}

// n strings that a table of 2n slots would put into one place.
Strings stringsOfOnePlace(size_t n) {
  const int shift = 64 - std::countr_zero(2 * n);
  Strings strings;
  for (uint32_t i = 0; strings.size() < n; ++i) {
    std::string candidate = "....aa";
    std::memcpy(candidate.data(), &i, sizeof(i));
    if (fnv1a(candidate) >> shift == 0) {
      strings.push_back(std::move(candidate));
    }
  }
  return strings;
}

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
    for (char& c : s) {
      c = " abc"[rng() % 4];
    }
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

// A run of strings in one place makes each one pass all others. At random 1024 strings in 2048
// slots have runs of some 20.
TEST(StringIndex, StringsChosenForOnePlaceOfAnUnseededHashAreSpread) {
  constexpr size_t kCount = 1024;
  const Strings strings = stringsOfOnePlace(kCount);
  StringIndex index;
  index.build(strings);
  ASSERT_EQ(kCount, index.size());
  EXPECT_LT(index.longestProbe(), 100U);
}

// The lengths of runs tell tables apart that were built from the same strings.
TEST(StringIndex, EveryBuildHasASeedOfItsOwn) {
  Strings strings;
  for (int i = 0; i < 2000; ++i) {
    strings.push_back(std::to_string(i));
  }
  std::set<size_t> probes;
  StringIndex index;
  for (int i = 0; i < 30; ++i) {
    index.build(strings);
    probes.insert(index.longestProbe());
  }
  EXPECT_GT(probes.size(), 1U);
}

TEST(StringIndex, LongestProbeIsThatOfTheTable) {
  StringIndex index;
  EXPECT_EQ(0U, index.longestProbe());
  const Strings strings = {"a"};
  index.build(strings);
  EXPECT_EQ(1U, index.longestProbe());
}

TEST(StringIndex, AnswersDoNotDependOnTheSeed) {
  Strings strings;
  for (int i = 0; i < 500; ++i) {
    strings.push_back(std::string(static_cast<size_t>(i % 11), 'x') + ' ' +
                      std::to_string(i % 400));
  }
  StringIndex one;
  one.build(strings, 0);
  for (const uint64_t seed : {uint64_t{1}, uint64_t{2}, ~uint64_t{0}}) {
    StringIndex other;
    other.build(strings, seed);
    EXPECT_EQ(one.size(), other.size());
    for (const std::string& string : strings) {
      ASSERT_EQ(one.find(string), other.find(string)) << string;
      ASSERT_EQ(StringIndex::kAbsent, other.find(string + "!")) << string;
    }
  }
}

TEST(StringIndex, LongKeysAreFoundWholeAndInPairs) {
  const std::string half(40, 'h');
  const Strings strings = {half + ' ' + half, half, std::string(200, 'l')};
  StringIndex index;
  index.build(strings);
  EXPECT_EQ(0, index.findPair(half, half));
  EXPECT_EQ(1, index.find(half));
  EXPECT_EQ(2, index.find(strings[2]));
  EXPECT_EQ(StringIndex::kAbsent, index.findPair(half, half + 'h'));
  EXPECT_EQ(StringIndex::kAbsent, index.findPair(strings[2], half));
  EXPECT_EQ(StringIndex::kAbsent, index.find(strings[2] + 'l'));
}

// Keys of every length around those that are handled in one, two or more parts; each byte counts.
TEST(StringIndex, EveryByteOfAKeyOfAnyLengthCounts) {
  for (size_t length = 1; length <= 70; ++length) {
    std::string key(length, '\0');
    for (size_t i = 0; i < length; ++i) {
      key[i] = static_cast<char>(1 + i);
    }
    Strings strings = {key};
    for (size_t i = 0; i < length; ++i) {
      strings.push_back(key);
      strings.back()[i] = static_cast<char>(0xF0);
    }
    StringIndex index;
    index.build(strings);
    for (size_t i = 0; i < strings.size(); ++i) {
      ASSERT_EQ(static_cast<int32_t>(i), index.find(strings[i])) << length;
    }
    ASSERT_EQ(StringIndex::kAbsent, index.find(key.substr(1))) << length;
  }
}

TEST(StringIndex, PairsOfEveryLengthEqualTheirJoinedText) {
  for (size_t left = 0; left <= 40; ++left) {
    for (size_t right = 0; right <= 40; ++right) {
      const std::string l(left, 'l');
      const std::string r(right, 'r');
      const Strings strings = {"other", l + ' ' + r};
      StringIndex index;
      index.build(strings);
      ASSERT_EQ(1, index.findPair(l, r)) << left << ' ' << right;
      ASSERT_EQ(StringIndex::kAbsent, index.findPair(l + 'l', r)) << left << ' ' << right;
      ASSERT_EQ(StringIndex::kAbsent, index.findPair(r + 'x', l)) << left << ' ' << right;
    }
  }
}

TEST(StringIndex, TrailingZeroBytesTellKeysApart) {
  const Strings strings = {std::string(1, '\0'), std::string(2, '\0'), std::string(7, '\0'),
                           std::string(8, '\0')};
  StringIndex index;
  index.build(strings);
  for (size_t i = 0; i < strings.size(); ++i) {
    EXPECT_EQ(static_cast<int32_t>(i), index.find(strings[i]));
  }
  EXPECT_EQ(StringIndex::kAbsent, index.find(std::string(3, '\0')));
}

}  // namespace
