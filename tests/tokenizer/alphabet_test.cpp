#include "tokenizer/alphabet.h"

#include <gtest/gtest.h>

namespace kel {
namespace {

TEST(AlphabetTest, PrintableBytesStandForThemselves) {
  EXPECT_EQ(letterOfByte('A'), U'A');
  EXPECT_EQ(letterOfByte(0x21), 0x21U);
  EXPECT_EQ(letterOfByte(0x7E), 0x7EU);
  EXPECT_EQ(letterOfByte(0xA1), 0xA1U);
  EXPECT_EQ(letterOfByte(0xFF), 0xFFU);
}

// The published alphabet: 33 bytes from 0x00, then 0x7F to 0xA0, then 0xAD.
TEST(AlphabetTest, OtherBytesMoveUpInOrder) {
  EXPECT_EQ(letterOfByte(0x00), 0x100U);
  EXPECT_EQ(letterOfByte('\t'), U'ĉ');
  EXPECT_EQ(letterOfByte('\n'), U'Ċ');
  EXPECT_EQ(letterOfByte(' '), U'Ġ');
  EXPECT_EQ(letterOfByte(0x7F), 0x121U);
  EXPECT_EQ(letterOfByte(0xA0), 0x142U);
  EXPECT_EQ(letterOfByte(0xAD), 0x143U);
}

TEST(AlphabetTest, LettersLeadBackToTheirBytes) {
  for (int byte = 0; byte < 256; ++byte)
    EXPECT_EQ(byteOfLetter(letterOfByte(static_cast<uint8_t>(byte))), byte);
}

TEST(AlphabetTest, OtherCharactersAreNoLetters) {
  for (const char32_t other : {U' ', U'\n', U'\u007F', U'\u00A0', U'\u00AD', U'\u0144', U'\u200B'})
    EXPECT_EQ(byteOfLetter(other), -1) << static_cast<uint32_t>(other);
}

TEST(AlphabetTest, LettersAreWrittenInUtf8) {
  std::string out;
  for (const int byte : {0x41, 0x20, 0xFF})
    appendLetter(static_cast<uint8_t>(byte), out);
  EXPECT_EQ(out, "AĠÿ");
}

TEST(AlphabetTest, LettersAreFoundInUtf8) {
  const std::string text = "AĠÿ";
  EXPECT_EQ(letterAt(text, 0).byte, 'A');
  EXPECT_EQ(letterAt(text, 0).nBytes, 1U);
  EXPECT_EQ(letterAt(text, 1).byte, ' ');
  EXPECT_EQ(letterAt(text, 1).nBytes, 2U);
  EXPECT_EQ(letterAt(text, 3).byte, 0xFF);
}

TEST(AlphabetTest, NothingElseIsALetter) {
  for (const char* other : {" ", "\n", "\xC4", "\xC4 ", "\xA0", "\xC5\x84", "\xE2\x96\x81"}) {
    EXPECT_EQ(letterAt(other, 0).byte, -1) << other;
  }
}

}  // namespace
}  // namespace kel
