// The tensors of a model: names, shapes, and which of them a layer needs. The one table from which
// binding, the checks and the importers work.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "container/model_shape.h"

namespace kel {

enum class TensorRole : uint8_t {
  Embedding,  // serves as the output head where that is tied
  OutputNorm,
  Output,
  AttnNorm,
  PostAttnNorm,
  FfnGate,
  FfnUp,
  FfnDown,
  AttnQkv,
  AttnGate,
  SsmBeta,
  SsmAlpha,
  SsmDtBias,
  SsmA,
  SsmConv1d,
  SsmNorm,
  SsmOut,  // a layer that has it is linear attention
  AttnQ,
  AttnK,
  AttnV,
  AttnQBias,
  AttnKBias,
  AttnVBias,
  AttnOutput,
  AttnQNorm,
  AttnKNorm,
};

enum class TensorGroup : uint8_t {
  Model,   // once
  Common,  // in every layer
  Linear,  // in every layer of linear attention
  Full,    // in every layer of full attention
};

enum class TensorKind : uint8_t {
  Matrix,    // read by products, as its element type says
  Vector,    // read as plain floats whatever the element type says
  ConvTaps,  // likewise; rows may be longer than the taps
};

// The sizes that a file chooses.
struct ModelSizes {
  uint64_t hidden = 0;
  uint64_t feedForward = 0;
  uint64_t vocab = 0;
};

// Fields in the order of the table's columns: there are only two dozen of these.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct ModelTensor {
  using Extent = uint64_t (*)(const ModelShape&, const ModelSizes&);

  TensorRole role;
  TensorGroup group;
  TensorKind kind;
  std::string_view suffix;  // the name without its layer
  Extent rows;              // 1 for a vector
  Extent columns;           // elements of a vector
  // Biases are not: a layer that has the query bias has all three, any other is used without. Nor
  // is the output head: it is there where the shape says that the model has its own.
  bool required = true;
};

// In the order in which binding looks them up.
std::span<const ModelTensor> tensorsOf(TensorGroup group);

const ModelTensor& tensorOf(TensorRole role);

// "blk.3.attn_q.weight"; the suffix alone for a tensor of the model, which has no layer.
std::string tensorName(const ModelTensor& tensor, uint32_t layer = 0);

// Innermost first: columns and rows, or the elements of a vector.
std::vector<uint64_t> tensorDims(const ModelTensor& tensor, const ModelShape& shape,
                                 const ModelSizes& sizes);

}  // namespace kel
