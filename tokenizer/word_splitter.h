// Cuts plain text into the words that a "Ġ" vocabulary merges one by one.
//
// A hand-written scanner in the manner of the published split patterns: contractions, letter
// runs with one optional leading non-letter, digit groups of one to three, punctuation runs,
// whitespace runs. Vocabularies in use were converted for exactly this scanner, so its deviations
// from those patterns are part of the format:
//   - letters, digits and whitespace are decided per byte: every byte from 0x80 up is a letter, and
//     only 0 to 9 are digits;
//   - a whitespace run never leaves its last space to the next word;
//   - a whitespace run that starts with a space and reaches a newline is one word;
//   - U+2019 opens a contraction like an apostrophe, but only where a word starts.
#pragma once

#include <string_view>
#include <vector>

namespace kel {

// The words of text in order, none empty; together they are text. Views into text. One forward
// pass; any bytes; any thread.
std::vector<std::string_view> splitWords(std::string_view text);

}  // namespace kel
