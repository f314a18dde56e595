// One token through the whole model: 32 blocks of attention and feed-forward with residual
// connections, the final norm, and the output head tied to the token embeddings.
//
// The model must have passed findUnfitTensor (qwen35/run_check.h). Positions are consecutive from 0
// after resetModel and stay below m.maxCtx. Two models may run on two host threads at once. The
// diagnostics are listed in qwen35/diagnostics.h.
#pragma once

#include <cstddef>

#include "qwen35/model.h"

namespace qwen35 {

// SwiGLU feed-forward block: down * (silu(gate * xn) . (up * xn)). "GLU Variants Improve
// Transformer" (2020). xn, out: nEmbd floats; out is overwritten and is not xn.
void ffnStep(size_t nEmbd, Layer& layer, const float* xn, float* out);

// Advances every layer by one token and computes its next-token logits. emb: the token's embedding
// row, nEmbd floats; pos: its position; logits: nVocab floats.
void forwardToken(Model& m, const float* emb, size_t pos, float* logits);

// The same without the output head, for tokens whose logits nobody reads, in the arithmetic of
// forwardBlock: a prompt leaves the same bits behind, token by token and in blocks. out: the final
// normalised hidden state, nEmbd floats.
void forwardTokenHidden(Model& m, const float* emb, size_t pos, float* out);

}  // namespace qwen35
