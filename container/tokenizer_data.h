// The raw tokenizer tables of a container, as stored; kel::Tokenizer::load takes them over.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kel {

// Whether a token of this type is special: matched whole wherever it is written out in text, and
// kept as it stands when text is made from ids.
constexpr bool isSpecialTokenType(int32_t type) {
  return type == 2 || type == 3;
}

// Owns all its strings and lists. Meant to be moved into the tokenizer, not copied: a real
// vocabulary is a quarter of a million strings twice over.
struct TokenizerData {
  std::vector<std::string> tokens;  // token id -> byte string, spaces already escaped
  std::vector<int32_t> auxValues;   // carried, not interpreted
  std::vector<int32_t> tokenTypes;  // one per token; see isSpecialTokenType
  std::vector<std::string> merges;  // "left right", index = rank, best first
  int32_t bosId = -1;               // negative: none
  int32_t eosId = -1;               // generation stops when it is sampled
  int32_t unkId = -1;               // negative: unknown symbols are dropped
  int32_t extraId = -1;             // carried, not read
  bool flag = false;                // carried, not read
  std::string label;                // free text, not interpreted
};

}  // namespace kel
