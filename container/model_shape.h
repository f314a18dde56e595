// The sizes that all layers of a model share, and which of its layers are of which kind.
//
// Hidden size, vocabulary and feed-forward width are not among them: tensors tell those.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kel {

// A set of layers, by index.
class LayerSet {
 public:
  static constexpr uint32_t kCapacity = 1024;  // far more layers than any model has

  // Every interval-th of the first `layers`: with 4, those at 3, 7, 11, ...
  static constexpr LayerSet every(uint32_t interval, uint32_t layers) {
    LayerSet set;
    for (uint32_t layer = interval - 1; layer < layers; layer += interval) {
      set.add(layer);
    }
    return set;
  }

  constexpr void add(uint32_t layer) { words[layer / kWordBits] |= bit(layer); }
  constexpr bool contains(uint32_t layer) const {
    return layer < kCapacity && (words[layer / kWordBits] & bit(layer)) != 0;
  }
  constexpr bool operator==(const LayerSet&) const = default;

 private:
  static constexpr uint32_t kWordBits = 64;
  static constexpr uint64_t bit(uint32_t layer) { return uint64_t{1} << (layer % kWordBits); }

  std::array<uint64_t, kCapacity / kWordBits> words{};
};

struct ModelShape {
  uint32_t layers;
  LayerSet fullLayers;  // of full attention; the others are of linear attention

  // Full attention.
  uint64_t queryHeads;
  uint64_t kvHeads;  // each shared by queryHeads / kvHeads query heads
  uint64_t headDim;
  uint64_t ropeDim;  // leading dimensions of a head that are rotated
  double ropeBase;

  // Linear attention.
  uint64_t linearKeyHeads;    // of keys and queries
  uint64_t linearValueHeads;  // each with a recurrent state of its own
  uint64_t linearKeyDim;      // of a head's key and query
  uint64_t linearValueDim;    // of a head's value
  uint64_t convTaps;

  double normEps;          // of every RMS and L2 norm
  uint64_t contextLength;  // positions that a conversation may hold

  bool ownOutput = false;  // logits by output.weight; otherwise by the embedding, which is tied

  constexpr bool isFull(uint32_t layer) const { return fullLayers.contains(layer); }

  // The interval at which layers are of full attention; 0 where they are not spaced evenly.
  constexpr uint32_t fullInterval() const {
    uint32_t first = 0;
    while (first < layers && !isFull(first)) {
      ++first;
    }
    return fullLayers == LayerSet::every(first + 1, layers) ? first + 1 : 0;
  }

  // Rows of the query projection: each head's query, then its output gate.
  constexpr uint64_t queryRows() const { return 2 * attentionWidth(); }
  constexpr uint64_t kvRows() const { return kvHeads * headDim; }
  constexpr uint64_t attentionWidth() const { return queryHeads * headDim; }

  constexpr uint64_t linearKeyWidth() const { return linearKeyHeads * linearKeyDim; }
  constexpr uint64_t linearValueWidth() const { return linearValueHeads * linearValueDim; }
  // Queries, keys and values side by side, as the mixed projection gives them.
  constexpr uint64_t convChannels() const { return 2 * linearKeyWidth() + linearValueWidth(); }

  constexpr bool operator==(const ModelShape&) const = default;
};

// The one shape that the plugin interface runs, and that of containers which do not state theirs.
inline constexpr ModelShape kFixedShape = {
    .layers = 32,
    .fullLayers = LayerSet::every(4, 32),
    .queryHeads = 16,
    .kvHeads = 4,
    .headDim = 256,
    .ropeDim = 64,
    .ropeBase = 1e7,
    .linearKeyHeads = 16,
    .linearValueHeads = 32,
    .linearKeyDim = 128,
    .linearValueDim = 128,
    .convTaps = 4,
    .normEps = 1e-6,
    .contextLength = 8192,
};

}  // namespace kel
