// The tensors that a container of this family holds, with what distinguishes each: the one table
// from which both importers and the conversion work.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kel::convert {

constexpr uint32_t kLayers = 32;
constexpr uint64_t kKeyHeads = 16;
constexpr uint64_t kValueHeads = 32;
constexpr uint64_t kSsmHeadDim = 128;  // of key and value heads in linear-attention layers

// Every fourth layer is full attention, the others are linear attention.
constexpr bool isFullLayer(uint32_t layer) {
  return (layer + 1) % 4 == 0;
}

// The three sizes that a model chooses.
struct ModelSizes {
  uint64_t hidden = 0;
  uint64_t feedForward = 0;
  uint64_t vocab = 0;
};

enum class TensorRole : uint8_t {
  Embedding,
  Matrix,
  Norm,    // F32; checkpoints of the training framework store the weight less 1
  Vector,  // F32, as it stands
  Decay,   // F32; such checkpoints store log(-x)
};

// Which axis runs over the value heads, and so has two orders. Grouped, in such checkpoints: the
// value heads of a key head are neighbours. Tiled, in the runtime: they lie kKeyHeads apart.
struct HeadAxis {
  enum class Kind : uint8_t { None, Rows, Columns } kind = Kind::None;
  uint64_t first = 0;  // row or column where the heads begin
  uint64_t unit = 0;   // rows or columns per head
};

struct TensorSpec {
  std::string name;              // in the container
  std::string_view suffix;       // the name without its layer
  std::string_view checkpoint;   // name in the training framework's checkpoints, likewise
  std::vector<uint64_t> dims{};  // innermost first
  TensorRole role = TensorRole::Matrix;
  HeadAxis heads{};
  bool required = true;
};

// Model-level tensors first, then layer by layer.
std::vector<TensorSpec> modelTensors(const ModelSizes& sizes);

// Index in the grouped order of the value head that the tiled order has at position head: tiled
// 16 j + g is grouped 2 g + j.
constexpr uint64_t groupedHead(uint64_t head) {
  constexpr uint64_t kPerKeyHead = kValueHeads / kKeyHeads;
  return head % kKeyHeads * kPerKeyHead + head / kKeyHeads;
}

}  // namespace kel::convert
