// UTF-8 text: lengths, repair, normalisation.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zym {

// Bytes of the valid character at text[0], 0 when there is none. code receives its code point.
size_t characterAt(std::string_view text, char32_t& code);
// The character with this code point, which is a valid one.
std::string utf8Of(char32_t code);
// The characters of text, U+FFFD for every byte that belongs to none.
std::u32string toCodes(std::string_view text);
std::string fromCodes(std::u32string_view codes);
// Columns that a terminal gives a character that is no control character: 0 to one that combines
// with the character before it, 2 to a wide one.
size_t columnsOf(char32_t code);
// Bytes at the end of text, 0 to 3, that begin a character whose rest is missing.
size_t incompleteTail(std::string_view text);
// text with every byte that belongs to no valid character replaced by U+FFFD.
std::string replaceInvalid(std::string_view text);
// text in normalisation form C; unchanged when it is not valid UTF-8.
std::string normalised(std::string_view text);
// text without control characters other than line feed and tab, for output to a terminal: what a
// model writes must not move the cursor or change its colours.
std::string withoutControls(std::string_view text);

}  // namespace zym
