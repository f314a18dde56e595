// A small byte-pair-encoding trainer, so that tests and benchmarks have vocabularies as models do.
#pragma once

#include <cstddef>
#include <string_view>

#include "container/tokenizer_data.h"

namespace kel::testing {

// Ids: the 256 single bytes (the space byte as marker), what the merges make, the characters of
// text, then "<|endoftext|>", "<|im_start|>", "<|im_end|>" (type 3). Merges: up to nMerges rules
// over the words of text, two markers first, then the most frequent pair; then the rules that join
// the bytes of each character, as a byte-level vocabulary has them. eosId is "<|im_end|>".
TokenizerData trainBpe(std::string_view text, std::string_view marker, size_t nMerges);

}  // namespace kel::testing
