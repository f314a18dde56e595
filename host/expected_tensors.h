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

// The three sizes that a file chooses.
struct ModelSizes {
  uint64_t hidden = 0;
  uint64_t vocab = 0;
  uint64_t feedForward = 0;
};

struct ExpectedTensor {
  std::string name;
  std::vector<uint64_t> dims;  // innermost first
  bool vector;                 // read as plain F32 numbers; otherwise a matrix
};

std::vector<ExpectedTensor> expectedTensors(const ModelSizes& sizes,
                                            const std::function<bool(uint32_t)>& isLinear);
// For the sizes of token_embd.weight and blk.0.ffn_gate.weight (0 where one is missing). A layer is
// of the linear kind where it has ssm_out.weight, as the runtime decides it.
std::vector<ExpectedTensor> expectedTensors(const kel::ZYMLoader& loader);

}  // namespace zym
