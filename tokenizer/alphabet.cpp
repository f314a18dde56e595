#include "tokenizer/alphabet.h"

#include <array>

namespace kel {
namespace {

constexpr char32_t kFirstMoved = 0x100;
constexpr size_t kMoved = 68;

constexpr bool standsForItself(uint32_t byte) {
  return (byte >= 0x21 && byte <= 0x7E) || (byte >= 0xA1 && byte <= 0xFF && byte != 0xAD);
}

struct Tables {
  std::array<char32_t, 256> letters{};
  std::array<uint8_t, kMoved> moved{};
};

constexpr Tables makeTables() {
  Tables tables;
  size_t next = 0;
  for (uint32_t byte = 0; byte < 256; ++byte) {
    if (standsForItself(byte)) {
      tables.letters[byte] = byte;
    } else {
      tables.letters[byte] = kFirstMoved + static_cast<char32_t>(next);
      tables.moved[next++] = static_cast<uint8_t>(byte);
    }
  }
  return tables;
}

constexpr Tables kTables = makeTables();

}  // namespace

char32_t letterOfByte(uint8_t byte) {
  return kTables.letters[byte];
}

int byteOfLetter(char32_t letter) {
  if (letter < 256) {
    return standsForItself(letter) ? static_cast<int>(letter) : -1;
  }
  if (letter - kFirstMoved < kMoved) {
    return kTables.moved[letter - kFirstMoved];
  }
  return -1;
}

void appendLetter(uint8_t byte, std::string& out) {
  // Letters end at U+0143: one byte in UTF-8, or two.
  const char32_t letter = letterOfByte(byte);
  if (letter < 0x80) {
    out += static_cast<char>(letter);
  } else {
    out += static_cast<char>(0xC0 | (letter >> 6));
    out += static_cast<char>(0x80 | (letter & 0x3F));
  }
}

// The letters beyond ASCII are U+00A1 to U+0143: two bytes, of which the first is at most C5.
Letter letterAt(std::string_view text, size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) {
    return {byteOfLetter(lead), 1};
  }
  if (lead < 0xC2 || lead > 0xC5 || at + 1 == text.size()) {
    return {};
  }
  const auto trail = static_cast<unsigned char>(text[at + 1]);
  if ((trail & 0xC0U) != 0x80U) {
    return {};
  }
  return {byteOfLetter(char32_t{lead & 0x1FU} << 6 | (trail & 0x3FU)), 2};
}

}  // namespace kel
