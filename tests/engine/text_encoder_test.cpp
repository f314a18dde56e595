#include "engine/text_encoder.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "container/zym2_writer.h"
#include "convert/vocabulary.h"
#include "tests/engine/engine_models.h"
#include "tests/support/temp_dir.h"
#include "tokenizer/alphabet.h"

namespace engine {
namespace {

using kel::convert::Vocabulary;
using kel::convert::VocabularyForm;
using Ids = std::vector<int32_t>;

constexpr int32_t kFirstMerged = 256;

std::string letters(std::string_view bytes) {
  std::string out;
  for (const char byte : bytes) {
    kel::appendLetter(static_cast<uint8_t>(byte), out);
  }
  return out;
}

// The letter of every byte, whose id is the byte; then a token for each pair of texts, from 256 on;
// then the special tokens.
Vocabulary vocabulary(const std::vector<std::pair<std::string, std::string>>& pairs,
                      const std::vector<std::string>& specials = {}) {
  Vocabulary made;
  for (int byte = 0; byte < kFirstMerged; ++byte) {
    made.tokens.push_back(letters(std::string(1, static_cast<char>(byte))));
  }
  for (const auto& [left, right] : pairs) {
    made.tokens.push_back(letters(left + right));
    made.merges.push_back(letters(left) + " " + letters(right));
  }
  made.types.assign(made.tokens.size(), kel::convert::kNormalToken);
  for (const std::string& special : specials) {
    made.tokens.push_back(special);
    made.types.push_back(kel::convert::kControlToken);
  }
  return made;
}

// An encoder and the tokenizer that it reads.
struct Encoding {
  explicit Encoding(const Vocabulary& source, VocabularyForm vocabForm = VocabularyForm::Alphabet,
                    TextForm textForm = TextForm::Composed) {
    kel::TokenizerData tables;
    const kel::Status built =
        kel::convert::buildTokenizer(source, source.tokens.size(), vocabForm, tables);
    EXPECT_TRUE(built.ok()) << built.message;
    EXPECT_TRUE(tokenizer.load(std::move(tables)).ok());
    encoder = std::make_unique<const TextEncoder>(tokenizer, textForm);
  }

  Ids ids(std::string_view text) const {
    Ids out;
    encoder->encode(text, out);
    return out;
  }

  Ids idsWithSpecials(std::string_view text) const {
    Ids out;
    encoder->encodeWithSpecials(text, out);
    return out;
  }

  kel::Tokenizer tokenizer;
  std::unique_ptr<const TextEncoder> encoder;
};

Ids bytesOf(std::string_view text) {
  Ids ids;
  for (const char byte : text) {
    ids.push_back(static_cast<uint8_t>(byte));
  }
  return ids;
}

std::string repeated(std::string_view part, size_t times) {
  std::string text;
  for (size_t i = 0; i < times; ++i) {
    text += part;
  }
  return text;
}

TEST(TextEncoderTest, EveryByteHasItsToken) {
  std::string text;
  for (char32_t code = 0; code < 0x800; ++code) {
    if (code < 0x80) {
      text += static_cast<char>(code);
    } else {
      text += static_cast<char>(0xC0U | code >> 6U);
      text += static_cast<char>(0x80U | (code & 0x3FU));
    }
  }
  const Vocabulary source = vocabulary({});
  for (const VocabularyForm form : {VocabularyForm::Alphabet, VocabularyForm::Raw}) {
    EXPECT_EQ(bytesOf(text), Encoding(source, form, TextForm::AsItIs).ids(text));
  }
}

TEST(TextEncoderTest, MergesStayInsideWords) {
  const Encoding encoding(vocabulary({{"a", "b"}, {" ", "ab"}, {"1", "1"}, {"b", " "}}));
  EXPECT_EQ((Ids{256, 257, ' ', '1', '1', '.'}), encoding.ids("ab ab 11."));
}

TEST(TextEncoderTest, LineBreaksJoinTheSignsBefore) {
  const Encoding encoding(vocabulary({{")", ":"}, {"):", "\n"}, {" ", "{"}, {" {", "\n"}}));
  EXPECT_EQ((Ids{'a', 257, 259, '\n', 'b'}), encoding.ids("a):\n {\n\nb"));
}

TEST(TextEncoderTest, RunsOfLineFeedsAndBlanksAreMerged) {
  const Encoding encoding(vocabulary({{"\n", "\n"}, {" ", " "}, {"\t", "\t"}, {"\t", "x"}}));
  EXPECT_EQ((Ids{'a', 256, 'b', '\n', 'c'}), encoding.ids("a\n\nb\nc"));
  EXPECT_EQ((Ids{257, ' ', 'a', 257}), encoding.ids("   a  "));
  EXPECT_EQ((Ids{'\t', 259}), encoding.ids("\t\tx"));
}

TEST(TextEncoderTest, ARepeatedWordHasTheSameIds) {
  const Encoding encoding(vocabulary({{" ", "t"}, {"h", "e"}, {" t", "he"}}));
  EXPECT_EQ((Ids{258, 258, 256, ' ', 'a', 258}), encoding.ids(" the the t a the"));
  Ids ids = {7};
  encoding.encoder->encode(" the the", ids);
  encoding.encoder->encode(" the", ids);
  EXPECT_EQ((Ids{7, 258, 258, 258}), ids);
}

TEST(TextEncoderTest, TextIsComposedUnlessItIsToStay) {
  const Vocabulary source = vocabulary({{"\xC3", "\xA9"}});
  EXPECT_EQ((Ids{256, 'a', 256}), Encoding(source).ids("éae\u0301"));
  EXPECT_EQ((Ids{256, 'a', 'e', 0xCC, 0x81}),
            Encoding(source, VocabularyForm::Alphabet, TextForm::AsItIs).ids("éae\u0301"));
}

TEST(TextEncoderTest, BytesOutsideUtf8AreReplaced) {
  const Encoding encoding(vocabulary({}));
  EXPECT_EQ(bytesOf("a\uFFFDb\uFFFD"), encoding.ids("a\xE2\x82"
                                                    "b\xC3"));
}

TEST(TextEncoderTest, SpecialTokensAreTextUnlessAskedFor) {
  const Encoding encoding(vocabulary({}, {"<|im_end|>", "<|im_end|>!"}));
  EXPECT_EQ(bytesOf("a<|im_end|>!"), encoding.ids("a<|im_end|>!"));
  EXPECT_EQ((Ids{'a', 257, 256, 'b'}), encoding.idsWithSpecials("a<|im_end|>!<|im_end|>b"));
}

TEST(TextEncoderTest, TextBetweenSpecialTokensIsByItself) {
  const Encoding encoding(vocabulary({{" ", " "}, {"e", "\u0301"}}, {"<s>"}));
  // The last space is at an end, so that nothing follows that it could belong to.
  EXPECT_EQ((Ids{'a', 256, 258, 'b'}), encoding.idsWithSpecials("a  <s>b"));
  EXPECT_EQ((Ids{'e', 258, 0xCC, 0x81}), encoding.idsWithSpecials("e<s>\u0301"));
}

TEST(TextEncoderTest, MergesNeverLeadToASpecialToken) {
  Vocabulary source = vocabulary({{"<", "|"}, {"<|", ">"}});
  source.types[257] = kel::convert::kControlToken;
  for (const VocabularyForm form : {VocabularyForm::Alphabet, VocabularyForm::Raw}) {
    EXPECT_EQ(bytesOf("<|>"), Encoding(source, form).ids("<|>"));
    EXPECT_EQ((Ids{257}), Encoding(source, form).idsWithSpecials("<|>"));
  }
}

TEST(TextEncoderTest, ARawVocabularyGivesTheSameIds) {
  const Vocabulary source = vocabulary({{" ", "a"},
                                        {"\xC3", "\xA9"},
                                        {"\n", "\n"},
                                        {" ", "\xC3\xA9"},
                                        {"\xF0", "\x9F"},
                                        {"\xF0\x9F", "\x98"},
                                        {"\x80", "\x80"}});
  const std::string text = " a é\n\n\t😀\u2000 \xC4\xA1";
  EXPECT_EQ(Encoding(source).ids(text), Encoding(source, VocabularyForm::Raw).ids(text));
}

// Both are written alike there, and the space is by far the more common one.
TEST(TextEncoderTest, ARawVocabularySpellsTheCharacterOfItsSpaceInBytes) {
  const Vocabulary source = vocabulary({{"\xC4", "\xA0"}});
  EXPECT_EQ((Ids{256}), Encoding(source).ids("Ġ"));
  EXPECT_EQ((Ids{0xC4, 0xA0, ' '}), Encoding(source, VocabularyForm::Raw).ids("Ġ "));
}

TEST(TextEncoderTest, AByteWithoutATokenIsUnknownOrDropped) {
  kel::TokenizerData tables;
  tables.tokens = {"Ġ", "a", "<unk>"};
  tables.tokenTypes = {1, 1, 2};
  tables.merges = {"Ġ x"};
  tables.label = "alphabet";
  for (const int32_t unknown : {-1, 2}) {
    tables.unkId = unknown;
    kel::Tokenizer tokenizer;
    ASSERT_TRUE(tokenizer.load(tables).ok());
    Ids ids;
    TextEncoder(tokenizer, TextForm::Composed).encode("a b", ids);
    EXPECT_EQ(unknown < 0 ? (Ids{1, 0}) : (Ids{1, 0, 2}), ids);
  }
}

TEST(TextEncoderTest, AVocabularyOfAnotherFamilyFollowsTheContainersRules) {
  kel::TokenizerData tables;
  tables.tokens = {"\u2581", "a", "\u2581a", "\n", "\n\n", "<s>", "s"};
  tables.tokenTypes = {1, 1, 1, 1, 1, 3, 1};
  tables.merges = {"\u2581 a", "\n \n", "< s", "<s >"};
  kel::Tokenizer tokenizer;
  ASSERT_TRUE(tokenizer.load(std::move(tables)).ok());
  const TextEncoder encoder(tokenizer, TextForm::Composed);
  Ids ids;
  encoder.encode(" aa\n\n a<s>", ids);
  EXPECT_EQ((Ids{2, 1, 3, 3, 2}), ids);
  Ids withSpecials;
  encoder.encodeWithSpecials("a<s> a", withSpecials);
  EXPECT_EQ((Ids{1, 5, 2}), withSpecials);
}

// Any quadratic step takes minutes here.
TEST(TextEncoderTest, LongRunsTakeTimeInProportion) {
  const Encoding encoding(vocabulary({{" ", " "}, {"a", "a"}, {"\n", "\n"}, {"1", "1"}}));
  constexpr size_t kRun = 1U << 20U;
  for (const char c : {' ', 'a', '\n'}) {
    const Ids ids = encoding.ids(std::string(kRun, c));
    EXPECT_EQ(kRun / 2, ids.size());
    EXPECT_EQ(ids.front(), ids.back());
  }
  EXPECT_EQ(kRun, encoding.ids(std::string(kRun, '1')).size());
  EXPECT_EQ(kRun, encoding.ids(std::string(kRun, '.')).size());
  EXPECT_EQ(3 * kRun, encoding.ids(std::string(kRun, '\x80')).size());
  EXPECT_EQ(kRun, encoding.ids(repeated("e\u0301", kRun / 2)).size());
  EXPECT_EQ(kRun, encoding.ids(repeated(" \n", kRun / 2)).size());
}

TextForm formOf(const std::function<void(kel::ZYM2Writer&)>& addMetadata, kel::Status& status) {
  const kel::test::TempDir folder;
  const std::string path = folder.file("model.zym");
  kel::ZYM2Writer writer;
  EXPECT_TRUE(writer.create(path).ok());
  addMetadata(writer);
  EXPECT_TRUE(writer.finish().ok());
  kel::ZYM2Reader reader;
  EXPECT_TRUE(reader.open(path.c_str()).ok());
  TextForm form = TextForm::AsItIs;
  status = readTextForm(reader, form);
  return form;
}

TEST(TextFormTest, IsWhatTheMetadataState) {
  kel::Status status;
  const auto stated = [&](const std::string& value) {
    return formOf([&](auto& writer) { writer.addMetaStr("tokenizer.normalizer", value); }, status);
  };
  EXPECT_EQ(TextForm::Composed, stated("nfc"));
  EXPECT_EQ(TextForm::AsItIs, stated(""));
  EXPECT_TRUE(status.ok());
  stated("nfkc");
  EXPECT_EQ(kel::StatusCode::Unsupported, status.code);
  EXPECT_EQ("tokenizer.normalizer is \"nfkc\"; text is brought to \"nfc\", or left as it is",
            status.message);
}

TEST(TextFormTest, OfAContainerThatStatesNoneIsComposed) {
  kel::Status status;
  EXPECT_EQ(TextForm::Composed, formOf([](auto&) {}, status));
  EXPECT_TRUE(status.ok());
}

TEST(TextFormTest, AModelEncodesInTheStatedForm) {
  kel::TokenizerData tables;
  ASSERT_TRUE(
      kel::convert::buildTokenizer(vocabulary({}), kFirstMerged, VocabularyForm::Alphabet, tables)
          .ok());
  kel::test::RandomModelSpec spec{.vocab = kFirstMerged};
  spec.tokenizer = tables;
  const testing_support::OpenedModel opened(spec);
  Ids ids;
  opened.model->textEncoder().encode("e\u0301", ids);
  EXPECT_EQ(bytesOf("é"), ids);
}

}  // namespace
}  // namespace engine
