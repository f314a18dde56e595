#include "tokenizer/word_splitter.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using Words = std::vector<std::string_view>;

struct SplitCase {
  std::string_view text;
  Words words;
};

class WordSplitting : public ::testing::TestWithParam<SplitCase> {};

TEST_P(WordSplitting, GivesTheDocumentedWords) {
  EXPECT_EQ(GetParam().words, kel::splitWords(GetParam().text)) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(Documented, WordSplitting,
                         ::testing::ValuesIn(std::vector<SplitCase>{
                             {"", {}},
                             {"Hello world", {"Hello", " world"}},
                             // contractions
                             {"I'M", {"I", "'M"}},
                             {"I’m", {"I’m"}},
                             {"don't", {"don", "'t"}},
                             {"don’t", {"don’t"}},
                             {"x'y", {"x", "'y"}},
                             {"’ll go", {"’ll", " go"}},
                             {"’xyz", {"’xyz"}},
                             {"'S'T'RE'VE'M'LL'D", {"'S", "'T", "'RE", "'VE", "'M", "'LL", "'D"}},
                             {"we'rest", {"we", "'re", "st"}},
                             {"'r", {"'r"}},
                             {"'l!", {"'l", "!"}},
                             {"1'2", {"1", "'", "2"}},
                             {"'", {"'"}},
                             {"''s", {"''", "s"}},
                             {" 's", {" '", "s"}},
                             {"'ſ", {"'ſ"}},
                             {"’Sx", {"’S", "x"}},
                             {"’REst", {"’RE", "st"}},
                             {"’lLama", {"’lL", "ama"}},
                             {"’Vex", {"’Ve", "x"}},
                             {"’ßx", {"’ßx"}},
                             {"\xE2\x80", {"\xE2\x80"}},
                             // digits
                             {"12345", {"123", "45"}},
                             {"1234567", {"123", "456", "7"}},
                             {" 42", {" ", "42"}},
                             {"a1b", {"a", "1", "b"}},
                             {"3.14", {"3", ".", "14"}},
                             // whitespace
                             {"a  b", {"a", "  ", "b"}},
                             {"\t\tx", {"\t\t", "x"}},
                             {"\tx", {"\tx"}},
                             {"\t x", {"\t ", "x"}},
                             {"\t1", {"\t", "1"}},
                             {" ", {" "}},
                             {"a \n b", {"a", " \n ", "b"}},
                             {"\n\n  x", {"\n\n  ", "x"}},
                             {"\r\n\tx", {"\r\n\t", "x"}},
                             {"\v\f", {"\v\f"}},
                             {"\vx", {"\vx"}},
                             {"\fx", {"\fx"}},
                             {"\nx", {"\n", "x"}},
                             {"\rx", {"\r", "x"}},
                             {"\r\nx", {"\r\n", "x"}},
                             {"\n é", {"\n ", "é"}},
                             // punctuation
                             {"hi!!\n\nthere", {"hi", "!!\n\n", "there"}},
                             {" !?", {" !?"}},
                             {" !?\r\n x", {" !?\r\n", " x"}},
                             {"...\n\n", {"...\n\n"}},
                             {"(hello", {"(hello"}},
                             {"((hello", {"((", "hello"}},
                             {"'hello", {"'hello"}},
                             {" hello", {" hello"}},
                             {"\x01hello", {"\x01hello"}},
                             {"a\x7F", {"a", "\x7F"}},
                             // non-ASCII bytes are letters
                             {"é", {"é"}},
                             {"日本", {"日本"}},
                             {"٣", {"٣"}},
                             {"12٣4", {"12", "٣", "4"}},
                             {"naïve café", {"naïve", " café"}},
                             {"\x80", {"\x80"}},
                             {"\xFF!", {"\xFF", "!"}},
                             {"\xE6\x97", {"\xE6\x97"}},
                             {"\xC3 x",
                              {"\xC3 x"}},  // the lead byte takes the space as its continuation
                         }));

enum class Class { Letter, Digit, Newline, Blank, Other };

Class classOf(int byte) {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  const char c = static_cast<char>(byte);
  if (byte >= 0x80 || kLetters.find(c) != std::string_view::npos) {
    return Class::Letter;
  }
  if (std::string_view("0123456789").find(c) != std::string_view::npos) {
    return Class::Digit;
  }
  if (c == '\n' || c == '\r') {
    return Class::Newline;
  }
  return std::string_view("\t\v\f ").find(c) != std::string_view::npos ? Class::Blank
                                                                       : Class::Other;
}

// How a byte joins a letter behind it, two signs before it and a byte like itself.
TEST(WordSplitter, EveryByteHasItsClass) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string b(1, static_cast<char>(byte));
    const Class is = classOf(byte);
    const bool joinsLetters = is == Class::Letter || is == Class::Blank || is == Class::Other;
    EXPECT_EQ(joinsLetters ? 1U : 2U, kel::splitWords(b + "x").size()) << byte;
    const bool joinsSigns = is == Class::Newline || is == Class::Other;
    EXPECT_EQ(joinsSigns ? 1U : 2U, kel::splitWords("!!" + b).size()) << byte;
    EXPECT_EQ(is == Class::Letter ? 1U : 2U, kel::splitWords(b + b + "x").size()) << byte;
    if (byte < 0x80) {  // a lead byte takes what follows as part of its character
      EXPECT_EQ(is == Class::Digit ? 1U : 2U, kel::splitWords(b + "1").size()) << byte;
    }
  }
}

TEST(WordSplitter, NulIsAnOrdinaryOtherByte) {
  using namespace std::string_view_literals;
  EXPECT_EQ((Words{"a"sv, "\0b"sv, "\0\0"sv, "1"sv}), kel::splitWords("a\0b\0\0001"sv));
}

TEST(WordSplitter, WordsOfAnyBytesAreNotEmptyAndJoinToTheText) {
  constexpr std::string_view kBytes = "aZ09 \t\n\r'!<\xE2\x80\x99\xC3\xF0\xFF";
  std::mt19937 rng(7);
  for (int round = 0; round < 20000; ++round) {
    std::string text(rng() % 24, ' ');
    for (char& c : text) {
      c = kBytes[rng() % kBytes.size()];
    }
    std::string joined;
    for (const std::string_view word : kel::splitWords(text)) {
      ASSERT_FALSE(word.empty());
      joined += word;
    }
    ASSERT_EQ(text, joined);
  }
}

}  // namespace
