// The only thing the tokenizer knows about UTF-8: how long a character is, by its lead byte.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace kel {

// Nominal length in bytes of the character that starts with lead; 1 for a stray continuation byte
// and for F8 to FF. What follows the lead byte is never looked at.
inline size_t characterBytes(char lead) {
  const auto byte = static_cast<unsigned char>(lead);
  if ((byte & 0xE0U) == 0xC0U) {
    return 2;
  }
  if ((byte & 0xF0U) == 0xE0U) {
    return 3;
  }
  if ((byte & 0xF8U) == 0xF0U) {
    return 4;
  }
  return 1;
}

// End of the character that starts at text[at], at most text.size().
inline size_t characterEnd(std::string_view text, size_t at) {
  return at + std::min(characterBytes(text[at]), text.size() - at);
}

}  // namespace kel
