// The attention block of a linear-attention layer: a short causal convolution, then the gated delta
// rule on a fixed-size state per value head. "Gated Delta Networks: Improving Mamba2 with Delta
// Rule" (2024).
#pragma once

#include <cstddef>

#include "qwen35/context.h"
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

// The block for the tokens of a pass, those of a sequence in their order. Called by all members of
// the team; out: [count][nEmbd], overwritten. layer: of the first sequence. Moves ssmState and
// convState of every sequence's layer; pos stays.
//
// The value heads cycle over the key heads: head h reads key head h mod ssmGroups.
void linearAttention(const Work& w, Layer& layer, size_t layerIdx, const ResidualSum& x,
                     float* out);

// Advances the layer by one token in the single-token arithmetic, with a context of its own for the
// call. x: the layer's input, nEmbd floats. out: the block's output, nEmbd floats, overwritten; may
// be x. layerIdx and pos: for the diagnostics alone (note their order, which is the reverse of
// fullAttnStep's). The environment variable QWEN35_NODECAY switches the decay of the state off.
// Throws std::bad_alloc.
void linearAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t layerIdx,
                    size_t pos);

// The state of a layer advanced by the tokens of each sequence's `replay`, as linearAttention
// advanced it by the same; there is no output. Called by all members of the team.
void advanceState(const Work& w, Layer& layer, size_t layerIdx);

}  // namespace qwen35
