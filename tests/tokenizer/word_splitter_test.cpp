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

TEST(WordSplitter, NulIsAnOrdinaryOtherByte) {
  using namespace std::string_view_literals;
  EXPECT_EQ((Words{"a"sv, "\0b"sv, "\0\0"sv, "1"sv}), kel::splitWords("a\0b\0\0001"sv));
}

TEST(WordSplitter, WordsOfAnyBytesAreNotEmptyAndJoinToTheText) {
  constexpr std::string_view kBytes = "aZ09 \t\n\r'!<\xE2\x80\x99\xC3\xF0\xFF";
  std::mt19937 rng(7);
  for (int round = 0; round < 20000; ++round) {
    std::string text(rng() % 24, ' ');
    for (char& c : text)
      c = kBytes[rng() % kBytes.size()];
    std::string joined;
    for (const std::string_view word : kel::splitWords(text)) {
      ASSERT_FALSE(word.empty());
      joined += word;
    }
    ASSERT_EQ(text, joined);
  }
}

}  // namespace
