#include "host/terminal/nearest_word.h"

#include <gtest/gtest.h>

namespace zym {
namespace {

TEST(EditDistance, CountsLettersToInsertDropReplaceAndSwap) {
  EXPECT_EQ(editDistance("bench", "bench"), 0U);
  EXPECT_EQ(editDistance("", "run"), 3U);
  EXPECT_EQ(editDistance("run", ""), 3U);
  EXPECT_EQ(editDistance("rn", "run"), 1U);
  EXPECT_EQ(editDistance("runn", "run"), 1U);
  EXPECT_EQ(editDistance("ran", "run"), 1U);
  EXPECT_EQ(editDistance("chta", "chat"), 1U);
  EXPECT_EQ(editDistance("hcta", "chat"), 2U);
  EXPECT_EQ(editDistance("ca", "abc"), 3U);  // no letter is swapped and then parted
}

TEST(NearestWord, IsTheOneWithTheFewestMistakes) {
  EXPECT_EQ(nearestWord("chekc", {"chat", "check"}), "check");
  EXPECT_EQ(nearestWord("thraeds", {"temperature", "threads"}), "threads");
  EXPECT_EQ(nearestWord("cha", {"chap", "chat"}), "chap");  // the first of two
}

TEST(NearestWord, IsNoneWhenMoreThanALetterInThreeIsWrong) {
  EXPECT_EQ(nearestWord("foo", {"run", "info"}), "");
  EXPECT_EQ(nearestWord("x", {"f", "at"}), "");
  EXPECT_EQ(nearestWord("tokenisze", {"tokenize"}), "tokenize");
  EXPECT_EQ(nearestWord("", {"run"}), "");
  EXPECT_EQ(nearestWord("run", {}), "");
}

TEST(NearestWord, MayBeAnAbbreviationOrALongerForm) {
  EXPECT_EQ(nearestWord("temp", {"top-k", "temperature"}), "temperature");
  EXPECT_EQ(nearestWord("benchmark", {"bench"}), "bench");
  EXPECT_EQ(nearestWord("t", {"temperature"}), "");
}

TEST(NearestWord, OverlooksCapitals) {
  EXPECT_EQ(nearestWord("INFO", {"run", "info"}), "info");
}

}  // namespace
}  // namespace zym
