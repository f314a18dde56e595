// The attention block of a full-attention layer: grouped query heads over a key/value cache,
// partial rotary position embedding, a sigmoid gate per output.
#pragma once

#include <cstddef>

#include "qwen35/model.h"

namespace qwen35 {

// Floats of the projection buffers. A model's heads must not need more; the biases always cover
// the whole buffers.
constexpr size_t kQueryFloats = 8192;  // 2 * nHead * headDim: query and gate of each head
constexpr size_t kKeyFloats = 1024;    // nHeadKv * headDim
constexpr size_t kValueFloats = 1024;
constexpr size_t kHeadOutputFloats = 4096;  // nHead * headDim

// Scale of the attention scores: 1 / sqrt(256), for the one head width there is.
constexpr float kScoreScale = 0.0625f;

// Base of the rotary angles; no file changes it.
constexpr double kRopeBase = 1e7;

// Advances the layer by one token. x: the layer's input, nEmbd floats. out: the block's output,
// nEmbd floats, overwritten; not x. pos: the token's position, for the rotary angle alone: keys go
// to the next free cache row, layer.pos, which then grows by one. layerIdx: for the diagnostics
// alone.
//
// With a full cache (layer.pos == m.maxCtx) nothing is stored and out is zero; callers stop before
// that. Products and heads run on the OpenMP team, everything else on the calling thread. Scratch
// is kept per host thread between calls; std::bad_alloc is thrown when it cannot grow.
void fullAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t pos, size_t layerIdx);

// Advances the layer by `count` tokens at once, at positions pos and on, as that many steps without
// diagnostics do, but with the products of qwen35/block_products.h. x, out: [count][nEmbd]. The
// cache has room for them.
void fullAttnBlock(Model& m, Layer& layer, const float* x, float* out, size_t count, size_t pos);

}  // namespace qwen35
