#include "tokenizer/vocab_text.h"

#include <cstddef>

#include "tokenizer/alphabet.h"
#include "tokenizer/whitespace.h"

namespace kel {

VocabText vocabTextOf(std::string_view label) {
  return label.find("alphabet") != std::string_view::npos ? VocabText::Alphabet : VocabText::Raw;
}

void appendTokenBytes(VocabText way, std::string_view token, std::string& out) {
  for (size_t at = 0; at < token.size();) {
    const Letter letter = letterAt(token, at);
    const std::string_view character = token.substr(at, letter.nBytes);
    if (way == VocabText::Alphabet && letter.byte >= 0) {
      out += static_cast<char>(letter.byte);
    } else if (way == VocabText::Raw && character == kByteLevelSpace) {
      out += ' ';
    } else {
      out += character;
    }
    at += letter.nBytes;
  }
}

}  // namespace kel
