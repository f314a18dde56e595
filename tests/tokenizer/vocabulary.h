// Small vocabularies for tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tokenizer/tokenizer.h"

namespace kel::testing {

inline Tokenizer loaded(TokenizerData data) {
  Tokenizer tokenizer;
  EXPECT_TRUE(tokenizer.load(std::move(data)).ok());
  return tokenizer;
}

inline TokenizerData tables(std::vector<std::string> tokens, std::vector<std::string> merges = {},
                            std::vector<int32_t> types = {}) {
  TokenizerData data;
  data.tokens = std::move(tokens);
  data.merges = std::move(merges);
  data.tokenTypes = std::move(types);
  return data;
}

// The merge rule that makes a vocabulary byte-level and applies to no text of these tests.
constexpr const char* kByteLevelRule = "\xC4\xA0 \x01";

// One token per byte value, ids 0 to 255, so that every symbol of one byte shows in the ids.
inline std::vector<std::string> byteTokens() {
  std::vector<std::string> tokens;
  for (int byte = 0; byte < 256; ++byte) {
    tokens.emplace_back(1, static_cast<char>(byte));
  }
  return tokens;
}

// The stored strings of ids, which must all be in range.
inline std::vector<std::string> strings(const Tokenizer& tokenizer,
                                        const std::vector<int32_t>& ids) {
  std::vector<std::string> out(ids.size());
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_TRUE(tokenizer.tokenToString(ids[i], out[i]).ok()) << ids[i];
  }
  return out;
}

inline std::vector<int32_t> encoded(const Tokenizer& tokenizer, std::string_view text,
                                    bool addBos = false) {
  std::vector<int32_t> ids;
  EXPECT_TRUE(tokenizer.encode(text, ids, addBos).ok());
  return ids;
}

inline std::vector<int32_t> merged(const Tokenizer& tokenizer, std::string_view piece) {
  std::vector<int32_t> ids;
  EXPECT_TRUE(tokenizer.tokenizeBpe(piece, ids).ok());
  return ids;
}

}  // namespace kel::testing
