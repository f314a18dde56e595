// A byte-level vocabulary that can spell a conversation in ASCII, for models without learned words.
#pragma once

#include <cstdint>
#include <string>

#include "container/tokenizer_data.h"

namespace kel::test {

// Ids of the control tokens of a conversation: the first of them in the vocabulary.
constexpr int32_t kAlphabetMarks = 9;

// Control tokens, printable bytes, space and line feed, one merge; the rest is padding.
inline kel::TokenizerData alphabetVocabulary(uint64_t size) {
  kel::TokenizerData tables;
  tables.label = "alphabet";
  for (const char* mark : {"<|im_start|>", "<|im_end|>", "<|endoftext|>", "<think>", "</think>",
                           "<tool_call>", "</tool_call>", "<tool_response>", "</tool_response>"}) {
    tables.tokens.emplace_back(mark);
    tables.tokenTypes.push_back(3);
  }
  for (int letter = '!'; letter <= '~'; ++letter) {
    tables.tokens.emplace_back(1, static_cast<char>(letter));
    tables.tokenTypes.push_back(1);
  }
  for (const char* rest : {"\u0120", "\n"}) {
    tables.tokens.emplace_back(rest);
    tables.tokenTypes.push_back(1);
  }
  tables.merges = {"\u0120 a"};
  while (tables.tokens.size() < size) {
    tables.tokens.push_back("[PAD" + std::to_string(tables.tokens.size()) + "]");
    tables.tokenTypes.push_back(5);
  }
  return tables;
}

}  // namespace kel::test
