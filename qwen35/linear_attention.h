// The attention block of a linear-attention layer: a short causal convolution, then the gated delta
// rule on a fixed-size state per value head. "Gated Delta Networks: Improving Mamba2 with Delta
// Rule" (2024).
#pragma once

#include <cstddef>

#include "qwen35/model.h"

namespace qwen35 {

// One update of one value head's state and its read-out, by the gated delta rule:
// S = e^g * S + k * (beta * (v - e^g * S^T k))^T, output = scale * S^T q.
//
// state: S, [dim (key)][dim (value)], updated; q, k: [dim]; v: [dim], in as the value, out as the
// output. The order of operations is that of KernelTable::deltaStep with a decay of exp(g). Any
// thread.
void gdnStep(float* state, const float* q, const float* k, float* v, float beta, size_t dim,
             float g, float scale);

// Advances the layer by one token. x: the layer's input, nEmbd floats. out: the block's output,
// nEmbd floats, overwritten; not x. layerIdx and pos: for the diagnostics alone (note their order,
// which is the reverse of fullAttnStep's). Moves layer.ssmState and layer.convState; layer.pos
// stays.
//
// The value heads cycle over the key heads: head h reads key head h mod ssmGroups. The environment
// variable QWEN35_NODECAY switches the decay of the state off.
//
// Products, channels and heads run on the OpenMP team, everything else on the calling thread.
// Scratch is kept per host thread between calls; std::bad_alloc is thrown when it cannot grow.
void linearAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t layerIdx,
                    size_t pos);

// Advances the layer by `count` tokens at once, as that many steps without diagnostics do, but with
// the products of qwen35/block_products.h. x, out: [count][nEmbd].
void linearAttnBlock(Model& m, Layer& layer, const float* x, float* out, size_t count);

}  // namespace qwen35
