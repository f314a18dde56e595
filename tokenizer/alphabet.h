// The byte alphabet of byte-level vocabularies: each byte is written as one printable character.
// Bytes 0x21..0x7E, 0xA1..0xAC and 0xAE..0xFF stand for themselves; the 68 others become U+0100,
// U+0101, .. in rising order, so that a space is U+0120 and a line feed U+010A. Whoever writes or
// reads such texts shares it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kel {

char32_t letterOfByte(uint8_t byte);
// The byte that the letter stands for, -1 for a character outside the alphabet.
int byteOfLetter(char32_t letter);
// Appends the letter of byte in UTF-8.
void appendLetter(uint8_t byte, std::string& out);

struct Letter {
  int byte = -1;  // none: the bytes at this place are no letter
  size_t nBytes = 1;
};

// The letter in UTF-8 at text[at]; at is below text.size().
Letter letterAt(std::string_view text, size_t at);

}  // namespace kel
