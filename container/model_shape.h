// The sizes that all layers of a model share, and how its two kinds of layers alternate.
//
// Hidden size, vocabulary and feed-forward width are not among them: tensors tell those.
#pragma once

#include <cstdint>

namespace kel {

struct ModelShape {
  uint32_t layers;
  uint32_t fullInterval;  // every such layer is full attention, the others are linear attention

  // Full attention.
  uint64_t queryHeads;
  uint64_t kvHeads;  // each shared by queryHeads / kvHeads query heads
  uint64_t headDim;
  uint64_t ropeDim;  // leading dimensions of a head that are rotated
  double ropeBase;

  // Linear attention.
  uint64_t linearKeyHeads;    // of keys and queries
  uint64_t linearValueHeads;  // each with a recurrent state of its own
  uint64_t linearHeadDim;     // of keys and values alike
  uint64_t convTaps;

  double normEps;          // of every RMS and L2 norm
  uint64_t contextLength;  // positions that a conversation may hold

  constexpr bool isFull(uint32_t layer) const { return (layer + 1) % fullInterval == 0; }

  // Rows of the query projection: each head's query, then its output gate.
  constexpr uint64_t queryRows() const { return 2 * attentionWidth(); }
  constexpr uint64_t kvRows() const { return kvHeads * headDim; }
  constexpr uint64_t attentionWidth() const { return queryHeads * headDim; }

  constexpr uint64_t linearKeyWidth() const { return linearKeyHeads * linearHeadDim; }
  constexpr uint64_t linearValueWidth() const { return linearValueHeads * linearHeadDim; }
  // Queries, keys and values side by side, as the mixed projection gives them.
  constexpr uint64_t convChannels() const { return 2 * linearKeyWidth() + linearValueWidth(); }
};

// The one shape that is supported.
inline constexpr ModelShape kFixedShape = {
    .layers = 32,
    .fullInterval = 4,
    .queryHeads = 16,
    .kvHeads = 4,
    .headDim = 256,
    .ropeDim = 64,
    .ropeBase = 1e7,
    .linearKeyHeads = 16,
    .linearValueHeads = 32,
    .linearHeadDim = 128,
    .convTaps = 4,
    .normEps = 1e-6,
    .contextLength = 8192,
};

}  // namespace kel
