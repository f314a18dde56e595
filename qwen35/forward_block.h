// A block of prompt tokens through the whole model at once, for tokens whose logits nobody reads.
//
// Every weight is read once per block instead of once per token. Rules of use are those of
// qwen35/forward.h.
#pragma once

#include <cstddef>

#include "qwen35/model.h"

namespace qwen35 {

// Tokens that a block holds at most: enough to make the cost of decoding weights small, few enough
// for the inputs of a matrix to stay in the second cache.
constexpr size_t kBlockTokens = 128;

// Advances every layer by `count` tokens (1 to kBlockTokens) at positions pos and on, which the
// caches have room for. emb: their embedding rows, [count][nEmbd]; out: the final normalised hidden
// states, [count][nEmbd].
//
// A token's result does not depend on how a prompt is cut into blocks: it is that of
// forwardTokenHidden, bit for bit. forwardToken rounds otherwise where matrices are Q4_K or Q5_K,
// which are multiplied decoded here. Diagnostics see nothing of it.
void forwardBlock(Model& m, const float* emb, size_t count, size_t pos, float* out);

}  // namespace qwen35
