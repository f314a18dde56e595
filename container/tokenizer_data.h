// The raw tokenizer tables of a container, as stored; kel::Tokenizer::load takes them over.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kel {

// Owns all its strings and lists. Meant to be moved into the tokenizer, not copied: a real
// vocabulary is a quarter of a million strings twice over.
struct TokenizerData {
  std::vector<std::string> tokens;  // token id -> byte string, spaces already escaped
  std::vector<int32_t> auxValues;   // carried, not interpreted
  std::vector<int32_t> tokenTypes;  // one per token; 2 and 3 mark special tokens
  std::vector<std::string> merges;  // "left right", index = rank, best first
  int32_t bosId = -1;               // negative: none
  int32_t eosId = -1;               // generation stops when it is sampled
  int32_t unkId = -1;               // negative: unknown symbols are dropped
  int32_t extraId = -1;             // carried, not read
  bool flag = false;                // carried, not read
  std::string label;                // free text, not interpreted
};

}  // namespace kel
