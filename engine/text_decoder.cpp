#include "engine/text_decoder.h"

#include <utility>

#include "engine/utf8_text.h"
#include "tokenizer/whitespace.h"

namespace engine {

std::string Utf8Stream::feed(std::string_view bytes) {
  pending += bytes;
  const size_t nComplete = pending.size() - unfinishedBytes(pending);
  std::string complete;
  appendValid(std::string_view(pending).substr(0, nComplete), complete);
  pending.erase(0, nComplete);
  return complete;
}

std::string Utf8Stream::finish() {
  std::string rest;
  appendValid(std::exchange(pending, {}), rest);
  return rest;
}

TextDecoder::TextDecoder(const kel::Tokenizer& textTokenizer, Specials specialTokens)
    : tokenizer(textTokenizer),
      specials(specialTokens),
      way(kel::vocabTextOf(textTokenizer.label)) {}

std::string TextDecoder::feed(int32_t id) {
  const auto at = static_cast<size_t>(id);
  if (id < 0 || at >= tokenizer.tokens.size()) {
    return {};
  }
  const std::string& token = tokenizer.tokens[at];
  if (at < tokenizer.tokenTypes.size() && kel::isSpecialTokenType(tokenizer.tokenTypes[at])) {
    std::string text = finish();
    if (specials == Specials::Shown) {
      appendValid(token, text);
    }
    return text;
  }
  std::string bytes;
  if (tokenizer.byteLevel) {
    kel::appendTokenBytes(way, token, bytes);
  } else {
    kel::appendUnescaped(token, bytes);
  }
  return stream.feed(bytes);
}

}  // namespace engine
