// Token ids to text while they come: UTF-8, whole characters, whatever the model says.
//
//   TextDecoder decoder(model->tokenizer(), TextDecoder::Specials::Hidden);
//   for (int32_t id : reply) show(decoder.feed(id));
//   show(decoder.finish());
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tokenizer/tokenizer.h"
#include "tokenizer/vocab_text.h"

namespace engine {

// Bytes that come in pieces, as whole characters. Bytes that belong to no character come out as
// U+FFFD (utf8_text.h says how many).
class Utf8Stream {
 public:
  // What is complete after these bytes, perhaps nothing.
  std::string feed(std::string_view bytes);
  // What was held back; the text ends here, and another one may begin.
  std::string finish();

 private:
  std::string pending;  // the beginning of a character
};

// One text; one thread at a time.
class TextDecoder {
 public:
  enum class Specials : uint8_t { Hidden, Shown };

  // textTokenizer: stays where it is as long as the decoder is in use.
  TextDecoder(const kel::Tokenizer& textTokenizer, Specials specialTokens);

  // The text that is complete after this token, perhaps empty. A special token, hidden or not, ends
  // a character that is not whole. An id outside the vocabulary adds nothing.
  std::string feed(int32_t id);
  // What was held back; the text ends here, and another one may begin.
  std::string finish() { return stream.finish(); }

 private:
  const kel::Tokenizer& tokenizer;
  Specials specials;
  kel::VocabText way;
  Utf8Stream stream;
};

}  // namespace engine
