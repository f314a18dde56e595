#include "host/cli/token_ids.h"

#include <gtest/gtest.h>

#include <string>

namespace zym {
namespace {

using Ids = std::vector<int32_t>;

std::string messageOf(std::string_view text) {
  Ids ids;
  return parseTokenIds(text, 100, ids).message;
}

TEST(TokenIds, AreSeparatedAsPeopleAndProgramsDo) {
  for (const char* text : {"0 12 99", "0,12,99", "0, 12,\t99\r\n", "0\n12\n99\n", "[0,12,99]",
                           "[\n  0,\n  12,\n  99\n]\n", " 00 012 099 "}) {
    Ids ids;
    ASSERT_TRUE(parseTokenIds(text, 100, ids).ok()) << text;
    EXPECT_EQ(ids, (Ids{0, 12, 99})) << text;
  }
}

TEST(TokenIds, NoneAreNoFault) {
  for (const char* text : {"", "\n", "[]"}) {
    Ids ids;
    EXPECT_TRUE(parseTokenIds(text, 100, ids).ok()) << text;
    EXPECT_TRUE(ids.empty()) << text;
  }
}

TEST(TokenIds, WhatIsNoNumberIsNamed) {
  EXPECT_EQ(messageOf("1 x2 3"), "\"x2\" is no token id; ids are whole numbers from 0");
  EXPECT_EQ(messageOf("1 2x"), "\"2x\" is no token id; ids are whole numbers from 0");
  EXPECT_EQ(messageOf("-1"), "\"-1\" is no token id; ids are whole numbers from 0");
  EXPECT_EQ(messageOf("1.5"), "\"1.5\" is no token id; ids are whole numbers from 0");
  EXPECT_EQ(messageOf("\xFF"), "\"\uFFFD\" is no token id; ids are whole numbers from 0");
}

TEST(TokenIds, WhatTheVocabularyLacksIsNamed) {
  EXPECT_EQ(messageOf("99 100 101"), "the vocabulary has no token 100; its last one is 99");
  EXPECT_EQ(messageOf("99999999999999999999999"),
            "the vocabulary has no token 99999999999999999999999; its last one is 99");
}

}  // namespace
}  // namespace zym
