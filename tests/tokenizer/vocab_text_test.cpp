#include "tokenizer/vocab_text.h"

#include <gtest/gtest.h>

namespace kel {
namespace {

std::string bytesOf(VocabText way, std::string_view token) {
  std::string bytes;
  appendTokenBytes(way, token, bytes);
  return bytes;
}

TEST(VocabTextTest, TheLabelNamesTheWay) {
  EXPECT_EQ(VocabText::Alphabet, vocabTextOf("alphabet"));
  EXPECT_EQ(VocabText::Raw, vocabTextOf("raw"));
  EXPECT_EQ(VocabText::Raw, vocabTextOf(""));
}

TEST(VocabTextTest, LettersOfTheAlphabetAreBytes) {
  EXPECT_EQ(" a\n\xC3", bytesOf(VocabText::Alphabet, "ĠaĊÃ"));
  EXPECT_EQ("\n", bytesOf(VocabText::Alphabet, "\n"));
}

TEST(VocabTextTest, WhatIsNoLetterStandsForItself) {
  EXPECT_EQ("<\u2581ő>", bytesOf(VocabText::Alphabet, "<\u2581ő>"));
}

TEST(VocabTextTest, RawTokensAreBytesButForTheSpace) {
  EXPECT_EQ(" Ã\xC4\n", bytesOf(VocabText::Raw, "ĠÃ\xC4\n"));
}

}  // namespace
}  // namespace kel
