// Random models that run: the whole tensor list of the family with small hidden size and
// vocabulary, written as a container. The attention shapes are the real ones, so a model of hidden
// size 64 takes some 140 MB in F32; size 8 takes 20 MB and is enough for most tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "container/model_shape.h"
#include "container/status.h"
#include "container/tokenizer_data.h"
#include "quant/quant_type.h"

namespace kel::test {

// A tensor as it will be written. Matrices hold values of root mean square about 1 / sqrt(cols), so
// that a projection keeps the scale of its input.
struct TensorPlan {
  std::string name;
  kel::QuantType type = kel::QuantType::F32;
  std::vector<uint64_t> dims;   // innermost first
  std::vector<uint8_t> data{};  // generated when empty
  float low = 0;                // vectors: range of the values
  float high = 0;
};

struct RandomModelSpec {
  uint64_t hidden = 8;
  uint64_t ffn = 16;
  uint64_t vocab = 300;
  // Of the matrices, each taking the next one in turn that its row length allows (F32 always does).
  std::vector<kel::QuantType> types = {kel::QuantType::F32};
  bool biases = false;
  // Heads, dimensions and taps; with statesShape its layers too, and the metadata say all of it.
  // Otherwise the layers are those of layerKinds and blocks.
  kel::ModelShape shape = kel::kFixedShape;
  bool statesShape = false;
  // One letter per layer, repeated over the blocks: L linear attention, F full attention.
  std::string layerKinds = "LLLF";
  size_t blocks = 32;
  std::string architecture = "qwen35";  // empty: the metadata has none
  std::string chatTemplate{};           // of the metadata; empty: they have none
  std::vector<std::pair<std::string, std::string>> texts{};  // further metadata
  kel::TokenizerData tokenizer{};  // when it has no tokens: tokens "<0>", "<1>", ...
  uint64_t seed = 1;
  // Of a matrix; further rows repeat the ones before, so that any size is written in little memory.
  uint64_t distinctBytes = UINT64_MAX;
  // Last word on the tensor list: may change, remove or add entries.
  std::function<void(std::vector<TensorPlan>&)> edit{};
};

// The tensors of such a model, in no particular order, without data.
std::vector<TensorPlan> planTensors(const RandomModelSpec& spec);

// Entry by name; throws std::out_of_range when there is none.
TensorPlan& planned(std::vector<TensorPlan>& plan, const std::string& name);

// Bytes of a tensor: what `data` holds or, when that is empty, values drawn from seed and name.
std::vector<uint8_t> tensorBytes(const TensorPlan& plan, uint64_t seed);

kel::Status writeRandomModel(const std::string& path, const RandomModelSpec& spec);

}  // namespace kel::test
