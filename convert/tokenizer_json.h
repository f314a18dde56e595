// Vocabulary from the text of a tokenizer.json.
#pragma once

#include <string>
#include <string_view>

#include "container/status.h"
#include "convert/vocabulary.h"

namespace kel::convert {

// Fills tokens, types and merges; normalizer is what is done to text before it is cut: "nfc", or
// "". Every added token becomes a control token, whatever its "special" says; ids that nobody has
// become unused tokens. Refuses what would turn the same text into other tokens than the runtime's:
// normalizers beyond NFC, a space put in front, words looked up before they are merged. Messages
// name tokenizer.json.
Status parseTokenizerJson(std::string_view text, Vocabulary& out, std::string& normalizer);

}  // namespace kel::convert
