// Any text through the engine's encoder and back: composed, cut into words that are all of it,
// merged, and decoded to the same text.
//
// Input: a first byte, whose low bits choose the vocabulary's form and whether the text is composed
// and special tokens count, then the text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "convert/vocabulary.h"
#include "engine/text_decoder.h"
#include "engine/text_encoder.h"
#include "engine/utf8_text.h"
#include "engine/word_pattern.h"
#include "tokenizer/alphabet.h"

namespace {

using kel::convert::Vocabulary;
using kel::convert::VocabularyForm;

constexpr const char* kSpecial = "<|im_end|>";

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

std::string letters(std::string_view bytes) {
  std::string out;
  for (const char byte : bytes) {
    kel::appendLetter(static_cast<uint8_t>(byte), out);
  }
  return out;
}

// Every byte, and merges across all kinds of characters.
Vocabulary vocabulary() {
  Vocabulary made;
  for (int byte = 0; byte < 256; ++byte) {
    made.tokens.push_back(letters(std::string(1, static_cast<char>(byte))));
  }
  const std::pair<const char*, const char*> pairs[] = {
      {" ", " "},       {"  ", "  "},     {"\n", "\n"},         {"\r", "\n"},     {" ", "a"},
      {"a", "a"},       {"aa", "aa"},     {"'", "s"},           {"\xC3", "\xA9"}, {" ", "\xC3\xA9"},
      {"\xC4", "\xA0"}, {"\xE2", "\x80"}, {"\xE2\x80", "\x9D"}, {".", "\n"},      {"<", "|"}};
  for (const auto& [left, right] : pairs) {
    made.tokens.push_back(letters(std::string(left) + right));
    made.merges.push_back(letters(left) + " " + letters(right));
  }
  made.types.assign(made.tokens.size(), kel::convert::kNormalToken);
  made.tokens.emplace_back(kSpecial);
  made.types.push_back(kel::convert::kControlToken);
  return made;
}

const kel::Tokenizer& tokenizerOf(VocabularyForm form) {
  const auto load = [](VocabularyForm wanted) {
    kel::TokenizerData tables;
    const Vocabulary source = vocabulary();
    require(buildTokenizer(source, source.tokens.size(), wanted, tables).ok());
    auto tokenizer = std::make_unique<kel::Tokenizer>();
    require(tokenizer->load(std::move(tables)).ok());
    return tokenizer;
  };
  static const std::unique_ptr<kel::Tokenizer> kAlphabet = load(VocabularyForm::Alphabet);
  static const std::unique_ptr<kel::Tokenizer> kRaw = load(VocabularyForm::Raw);
  return form == VocabularyForm::Raw ? *kRaw : *kAlphabet;
}

std::string decoded(const kel::Tokenizer& tokenizer, const std::vector<int32_t>& ids) {
  engine::TextDecoder decoder(tokenizer, engine::TextDecoder::Specials::Shown);
  std::string text;
  for (const int32_t id : ids) {
    text += decoder.feed(id);
  }
  return text + decoder.finish();
}

// Composing once is enough, and words are all of a text.
void checkText(const std::string& text) {
  require(engine::isValid(text));
  const std::string composed = engine::composed(text);
  require(engine::isValid(composed));
  require(engine::composed(composed) == composed);
  for (size_t at = 0; at < text.size();) {
    const size_t end = engine::wordEnd(text, at);
    require(end > at && end <= text.size());
    at = end;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const unsigned choice = size == 0 ? 0 : data[0];
  const std::string_view input(reinterpret_cast<const char*>(data) + (size == 0 ? 0 : 1),
                               size == 0 ? 0 : size - 1);
  const auto form = (choice & 1U) != 0 ? VocabularyForm::Raw : VocabularyForm::Alphabet;
  const auto textForm = (choice & 2U) != 0 ? engine::TextForm::Composed : engine::TextForm::AsItIs;
  std::string text;
  engine::appendValid(input, text);
  checkText(text);

  const kel::Tokenizer& tokenizer = tokenizerOf(form);
  const engine::TextEncoder encoder(tokenizer, textForm);
  std::vector<int32_t> ids;
  if ((choice & 4U) != 0) {
    encoder.encodeWithSpecials(input, ids);
  } else {
    encoder.encode(input, ids);
    for (const int32_t id : ids) {
      require(!kel::isSpecialTokenType(tokenizer.tokenTypes[static_cast<size_t>(id)]));
    }
  }
  // The text between special tokens is composed by itself, so that only the whole is compared.
  if ((choice & 6U) != 6U) {
    const bool composes = textForm == engine::TextForm::Composed;
    require(decoded(tokenizer, ids) == (composes ? engine::composed(text) : text));
  }
  return 0;
}
