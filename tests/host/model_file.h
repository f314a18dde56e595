// Small containers for tests of the program.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "container/model_tensors.h"
#include "container/tokenizer_data.h"
#include "container/zym2_writer.h"

namespace zym::testing_support {

inline kel::TokenizerData smallVocabulary(size_t tokens) {
  kel::TokenizerData data;
  data.label = "alphabet";
  for (size_t i = 0; i < tokens; ++i) {
    data.tokens.push_back(i == 0 ? "Ġ" : i == 1 ? "<|im_end|>" : "[PAD" + std::to_string(i) + "]");
  }
  data.tokenTypes = std::vector<int32_t>(tokens, 1);
  data.tokenTypes[1] = 3;
  data.merges = {"Ġ a"};
  data.eosId = 1;
  return data;
}

// A tensor that is about to be written, for a test to change.
struct TensorPlan {
  std::string name;
  kel::QuantType type = kel::QuantType::F32;
  std::vector<uint64_t> dims;
  std::vector<float> values;
  bool written = true;
};

// Writes a complete model of hidden size 1 and feed-forward width 1 with `tokens` tokens; all
// matrices F32. change sees every tensor before it is written.
inline kel::Status writeSmallModel(const std::string& path,
                                   const std::function<void(TensorPlan&)>& change = nullptr,
                                   const std::string& architecture = "qwen35",
                                   const std::function<void(kel::ZYM2Writer&)>& more = nullptr) {
  constexpr uint64_t kTokens = 4;
  kel::ZYM2Writer writer;
  kel::Status status = writer.create(path);
  writer.addMetaStr("general.architecture", architecture);
  writer.setTokenizer(smallVocabulary(kTokens));
  if (more) {
    more(writer);
  }
  const auto add = [&](const kel::ModelTensor& tensor, uint32_t layer) {
    const std::vector<uint64_t> dims = kel::tensorDims(
        tensor, kel::kFixedShape, {.hidden = 1, .feedForward = 1, .vocab = kTokens});
    uint64_t count = 1;
    for (const uint64_t dim : dims) {
      count *= dim;
    }
    TensorPlan plan{kel::tensorName(tensor, layer), kel::QuantType::F32, dims,
                    std::vector<float>(count, 0.5F), true};
    if (change) {
      change(plan);
    }
    if (status.ok() && plan.written) {
      status = writer.addTensor(plan.name, plan.type, plan.dims, plan.values.data(),
                                plan.values.size() * sizeof(float));
    }
  };
  const auto addGroup = [&](kel::TensorGroup group, uint32_t layer) {
    for (const kel::ModelTensor& tensor : kel::tensorsOf(group)) {
      if (tensor.required) {
        add(tensor, layer);
      }
    }
  };
  addGroup(kel::TensorGroup::Model, 0);
  for (uint32_t layer = 0; layer < kel::kFixedShape.layers; ++layer) {
    addGroup(kel::TensorGroup::Common, layer);
    addGroup(kel::kFixedShape.isFull(layer) ? kel::TensorGroup::Full : kel::TensorGroup::Linear,
             layer);
  }
  return status.ok() ? writer.finish() : status;
}

}  // namespace zym::testing_support
