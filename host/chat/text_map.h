// Between what people type and read (UTF-8) and what a vocabulary holds.
//
// Byte-level vocabularies spell every byte with a letter of the alphabet (tokenizer/alphabet.h). A
// container stores them in one of two ways, and its tokenizer label says which:
//
// - alphabet: the tokens keep the alphabet, except the line feed, which is a real one. Typed text
//   is brought to normalisation form C and its bytes become letters, so that byte-pair merging sees
//   what it saw in training. Printable ASCII is its own letter; a space in front of a word and a
//   single line feed stay as they are, since the runtime's splitter looks for them.
// - raw: the tokens hold raw bytes and mark a space as U+0120. Only the normalisation is done.
//
// Special tokens in typed text would be read as turn marks. They are made harmless by a zero-width
// space (U+200B) behind their first character: no byte-level token contains it, so an alphabet
// vocabulary drops it and the model reads exactly the characters that were typed, as plain text. In
// a raw vocabulary it may reach the model as the invisible character that it is. A special token of
// one character has no inside to break and stays.
#pragma once

#include <string>
#include <string_view>

#include "container/status.h"
#include "container/tokenizer_data.h"
#include "engine/text_decoder.h"
#include "tokenizer/special_tokens.h"
#include "tokenizer/tokenizer.h"
#include "tokenizer/vocab_text.h"

namespace zym {

using kel::VocabText;
using kel::vocabTextOf;

// Typed text to vocabulary text. Immutable after construction.
class TextMap {
 public:
  // Keeps the special tokens and the tokens of white space and punctuation, not the vocabulary.
  explicit TextMap(const kel::TokenizerData& tables);

  // keepSpecial: special tokens in the text take effect. Fails when the result would hold a NUL,
  // which ends a text on its way to the runtime (raw vocabularies only).
  kel::Status toVocabulary(std::string_view typed, bool keepSpecial, std::string& out) const;

  VocabText way() const { return vocabText; }

 private:
  std::string toLetters(std::string_view text) const;
  void appendWhiteSpace(std::string_view run, bool endsText, char joinable, std::string& out) const;
  void appendCovered(std::string_view run, char joinable, std::string& out) const;
  bool covers(std::string_view letters) const;
  std::string withBrokenSpecials(std::string_view text) const;

  VocabText vocabText;
  kel::SpecialTokens specialTokens;  // in matching order
  kel::SpecialTokenFinder finder;
  kel::Tokenizer spacing;  // the tokens and merges of white space and punctuation alone
};

// Pieces of a reply back to UTF-8, one decoder per reply. A character that is split over pieces
// comes out when it is whole; bytes that belong to no character come out as U+FFFD.
class PieceDecoder {
 public:
  explicit PieceDecoder(VocabText way) : vocabText(way) {}

  // The text that is complete after this piece, perhaps empty.
  std::string feed(std::string_view piece);
  // What was held back; the reply ends here.
  std::string finish() { return stream.finish(); }

 private:
  VocabText vocabText;
  engine::Utf8Stream stream;
};

}  // namespace zym
