// Vocabulary from the text of a tokenizer.json.
#pragma once

#include <string_view>

#include "container/status.h"
#include "convert/vocabulary.h"

namespace kel::convert {

// Fills tokens, types and merges. Every added token becomes a control token, whatever its "special"
// says; ids that nobody has become unused tokens. Messages name tokenizer.json.
Status parseTokenizerJson(std::string_view text, Vocabulary& out);

}  // namespace kel::convert
