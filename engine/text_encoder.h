// Text to token ids as the models of the family were trained on it: composed, cut into words by the
// family's pattern (word_pattern.h), and each word's bytes merged. The ids are those of the
// source's own tokenizer.
//
//   std::vector<int32_t> ids;
//   model->textEncoder().encode(message, ids);
//
// kel::Tokenizer::encode, by contrast, cuts by the container format's own rules, which every plugin
// follows. docs/tokenizer.md compares the two.
//
// What the container makes of the source's vocabulary decides how near its ids are. In the alphabet
// form nothing is lost. The raw form spells a space and the character U+0120 alike; there a token
// that holds that character is spelt by tokens of its bytes. A vocabulary that marks spaces with
// "▁" is of another family, whose pattern the container does not tell: the container format's rules
// apply.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"
#include "container/zym2_reader.h"
#include "tokenizer/special_tokens.h"
#include "tokenizer/tokenizer.h"

namespace engine {

// What is done to text before it is cut.
enum class TextForm : uint8_t { AsItIs, Composed };

// As the metadata state it ("tokenizer.normalizer": "nfc", or nothing). A container that states
// none is of the family's own making: Composed. Another form is Unsupported.
kel::Status readTextForm(const kel::ZYM2Reader& reader, TextForm& out);

// Immutable: any number of threads.
class TextEncoder {
 public:
  // tokenizer: stays where it is, unchanged, as long as the encoder is in use.
  TextEncoder(const kel::Tokenizer& tokenizer, TextForm form);
  ~TextEncoder();
  TextEncoder(const TextEncoder&) = delete;
  TextEncoder& operator=(const TextEncoder&) = delete;

  // Appends the ids of text, in which special tokens are plain text: no id of one comes out,
  // whatever the text. Bytes that are not UTF-8 are read as U+FFFD. No beginning token is added. A
  // byte without a token becomes the unknown token, or vanishes where there is none.
  void encode(std::string_view text, std::vector<int32_t>& ids) const;

  // The same, but special tokens that are written out become their ids; the text between two of
  // them is by itself.
  void encodeWithSpecials(std::string_view text, std::vector<int32_t>& ids) const;

 private:
  struct Letters;
  class Words;

  int32_t plainId(const kel::StringIndex& index, std::string_view token) const;
  void encodePlain(std::string_view text, Words& words, std::vector<int32_t>& ids) const;
  void appendOrUnknown(int32_t id, std::vector<int32_t>& ids) const;
  void encodeOtherFamily(std::string_view text, std::vector<int32_t>& ids) const;

  const kel::Tokenizer& tokenizer;
  TextForm form;
  std::unique_ptr<const Letters> restored;  // of a raw vocabulary
  const kel::StringIndex* tokenIndex;       // of tokens and rules in letters
  const kel::StringIndex* mergeRanks;       //
  std::array<int32_t, 256> byteIds{};       // negative: no token
  kel::SpecialTokenFinder specials;
};

}  // namespace engine
