// The tensors that a runnable container holds, with their shapes. The table is the program's own,
// so that a check can name every tensor at fault, where the runtime stops at the first.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "container/zym_loader.h"

namespace zym {

constexpr uint32_t kLayers = 32;

enum class TensorRole {
  Matrix,
  Vector,    // read as plain F32 numbers
  ConvTaps,  // likewise, row by row
};

struct ExpectedTensor {
  std::string name;
  std::vector<uint64_t> dims;  // innermost first; two but for vectors
  TensorRole role;
};

// What a file chooses: the sizes, and for each layer its kind and width.
struct ModelSizes {
  uint64_t hidden = 0;
  uint64_t vocab = 0;
};
struct LayerChoice {
  bool linear = false;
  uint64_t feedForward = 0;
  bool biases = false;  // of full attention: added where attn_q.bias exists
};

std::vector<ExpectedTensor> expectedTensors(const ModelSizes& sizes,
                                            const std::function<LayerChoice(uint32_t)>& layerAt);
// For the sizes of token_embd.weight (0 where it is missing). As the runtime decides it, a layer is
// of the linear kind where it has ssm_out.weight, and as wide as its ffn_gate.weight has rows.
std::vector<ExpectedTensor> expectedTensors(const kel::ZYMLoader& loader);

}  // namespace zym
