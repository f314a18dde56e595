// Models for session tests: a vocabulary that can spell a chat, and weights whose greedy choice is
// known in advance.
//
// Block outputs are zero unless a test says otherwise, so the hidden state of a position is the
// token's embedding and the logits are its likeness to every row. All rows lie near one direction
// and the favourite's is the longest: whatever is fed, the favourite has the largest logit.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/random_model.h"

namespace kel::test {

// Tokens: "\n" and the printable ASCII characters with the space as U+2581, then <|im_start|>,
// <|im_end|> and <|eos|> (specials), then "<N>" up to `vocab`. No merges, no beginning token.
kel::TokenizerData chatTables(size_t vocab);

// Id of a token of chatTables(vocab); throws when there is none.
int32_t chatId(const std::string& token);

struct ChatModel {
  std::string favourite = "a";  // the token that greedy decoding chooses at every position
  uint64_t hidden = 8;
  size_t vocab = 300;
  // Mostly full attention: a linear-attention layer reads and writes two megabytes a token.
  std::string layerKinds = "LFFFFFFF";
  kel::QuantType matrices = kel::QuantType::F32;
  // Changes to the vocabulary tables and, after them, to the tensors.
  std::function<void(kel::TokenizerData&)> editTables{};
  std::function<void(std::vector<TensorPlan>&)> editTensors{};
};

// Throws std::runtime_error when the file cannot be written.
void writeChatModel(const std::string& path, const ChatModel& model);

// Random weights throughout, the vocabulary of chatTables: for tests of likeness between entries.
void writeRandomChatModel(const std::string& path, kel::QuantType matrices, uint64_t hidden = 32);

// The same, and every layer's block outweighs all layers before it: a feed-forward block is a
// product of two of its inputs, so the relative difference of two states grows from layer to layer,
// and one in the last bit of a value soon changes what is said. For tests that compare replies
// where bits are meant.
void writeSensitiveChatModel(const std::string& path, kel::QuantType matrices,
                             uint64_t hidden = 32);

// The values of one tensor as the bytes of a plan, and one row of an F32 embedding by its index or
// its token.
std::vector<uint8_t> floatBytes(const std::vector<float>& values);
void setEmbeddingRow(std::vector<TensorPlan>& plan, size_t row, const std::vector<float>& values);
void setEmbeddingRow(std::vector<TensorPlan>& plan, const std::string& token,
                     const std::vector<float>& values);
void fillEmbeddingRow(std::vector<TensorPlan>& plan, size_t row, float value);

}  // namespace kel::test
