// Tokens and merges in the number of a real vocabulary, without meaning.
#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "container/tokenizer_data.h"

namespace kel::test {

// Printable bytes, then strings of 2 to 14 letters with a merge each, as many as a byte-level
// vocabulary of that size has.
inline kel::TokenizerData syntheticVocabulary(uint64_t size) {
  std::mt19937 random(1);
  kel::TokenizerData tables;
  for (char byte = ' '; byte <= '~' && tables.tokens.size() < size; ++byte) {
    tables.tokens.emplace_back(1, byte);
  }
  while (tables.tokens.size() < size) {
    const std::string& left = tables.tokens[random() % tables.tokens.size()];
    const std::string& right = tables.tokens[random() % tables.tokens.size()];
    if (left.size() + right.size() > 14) {
      continue;
    }
    tables.merges.push_back(left + " " + right);
    tables.tokens.push_back(left + right);
  }
  tables.tokenTypes.assign(tables.tokens.size(), 1);
  return tables;
}

}  // namespace kel::test
