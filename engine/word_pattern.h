// How models of the family cut text into words before they merge bytes: the published pattern
//
//   (?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?[\p{L}\p{M}]+|\p{N}|
//    ?[^\s\p{L}\p{M}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+
//
// whose first alternative that matches gives the word (the line break in front of " ?" is none of
// its). \s is Unicode's White_Space; letters, marks and numbers are those of the installed Unicode
// tables. Case folding is Unicode's too, so that the long s (U+017F) is an s. Every character is
// part of some match, so that words are all of a text.
#pragma once

#include <cstddef>
#include <string_view>

namespace engine {

// End of the word that begins at text[at]. text is valid UTF-8; at is below its size and the start
// of a character. Cutting a text word by word takes time linear in it.
size_t wordEnd(std::string_view text, size_t at);

}  // namespace engine
