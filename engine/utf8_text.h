// UTF-8 as the engine reads and writes it: characters, repair of what is none, composition.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace engine {

// A character, or bytes that belong to none.
struct Utf8Character {
  char32_t code = 0;
  size_t nBytes = 1;
  bool valid = false;  // where not: nBytes is what one U+FFFD stands for
};

// What stands at text[at]; at is below text.size(). Of bytes that make up no character those that
// could begin one are taken together, as RFC 3629 decoders commonly do: "Substitution of Maximal
// Subparts" (The Unicode Standard, section 3.9).
Utf8Character characterAt(std::string_view text, size_t at);

void appendCharacter(char32_t code, std::string& out);

// Appends text, with U+FFFD in place of bytes that belong to no character.
void appendValid(std::string_view text, std::string& out);

// Bytes at the end of text, 0 to 3, that are the beginning of a character.
size_t unfinishedBytes(std::string_view text);

// text, which is valid, in normalisation form C. In time about linear in the text, whatever it is.
std::string composed(std::string_view text);

// Whether every character of text, which is valid, stands below U+0300: such text is in form C.
bool isBelowMarks(std::string_view text);

// Whether text is valid UTF-8.
bool isValid(std::string_view text);

}  // namespace engine
