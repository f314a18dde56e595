// The attention block of a full-attention layer: grouped query heads over a key/value cache,
// partial rotary position embedding, a sigmoid gate per output.
#pragma once

#include <cstddef>

#include "qwen35/context.h"
#include "qwen35/model.h"

namespace qwen35 {

// The block for the tokens of a pass, whose angles are computed. Their keys go to the cache rows
// of their sequence's layer from its pos on, which the caller raises after the pass. layer: of the
// first sequence. Called by all members of the team; out: [count][nEmbd], overwritten. Where a
// cache has no room for its tokens, nothing is stored and out is zero.
void fullAttention(const Work& w, Layer& layer, size_t layerIdx, const ResidualSum& x, float* out);

// The rotary angles of one token of a pass: pos * base^(-2i / ropeDim) for pair i, formed by
// repeated multiplication in double. A power per pair would round differently.
void computeAngles(const Work& w, size_t token);

// Advances the layer by one token in the single-token arithmetic, with a context of its own for the
// call. x: the layer's input, nEmbd floats. out: the block's output, nEmbd floats, overwritten; may
// be x. pos: the token's position, for the rotary angle alone: keys go to the next free cache row,
// layer.pos, which then grows by one. layerIdx: for the diagnostics alone.
//
// With a full cache (layer.pos == m.maxCtx) nothing is stored and out is zero; callers stop before
// that. Throws std::bad_alloc.
void fullAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t pos, size_t layerIdx);

}  // namespace qwen35
