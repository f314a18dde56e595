#include "host/inspect/expected_tensors.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "host/inspect/tensor_fit.h"

namespace zym {
namespace {

constexpr uint64_t kHeadDim = 256;
constexpr uint64_t kQueryRows = 2 * 16 * kHeadDim;  // query and output gate, head by head
constexpr uint64_t kKeyRows = 4 * kHeadDim;
constexpr uint64_t kInner = 4096;  // of both kinds of attention
constexpr uint64_t kQkvRows = 2048 + 2048 + kInner;
constexpr uint64_t kValueHeads = 32;
constexpr uint64_t kStateDim = 128;
constexpr uint64_t kTaps = 4;

LayerChoice layerOf(const kel::ZYMLoader& loader, uint32_t index) {
  const auto find = [&](const char* name) {
    return loader.findTensor("blk." + std::to_string(index) + "." + name);
  };
  const kel::TensorView* gate = find("ffn_gate.weight");
  // At least 1, so that a gate without rows is itself at fault.
  const uint64_t width = gate == nullptr ? 1 : std::max<uint64_t>(rowCount(*gate).value_or(1), 1);
  return {find("ssm_out.weight") != nullptr, width, find("attn_q.bias") != nullptr};
}

class Builder {
 public:
  explicit Builder(const ModelSizes& sizes) : size(sizes) {
    matrix("token_embd.weight", size.hidden, size.vocab);
    vector("output_norm.weight", size.hidden);
  }

  void layer(uint32_t index, const LayerChoice& choice) {
    prefix = "blk." + std::to_string(index) + ".";
    vector("attn_norm.weight", size.hidden);
    vector("post_attention_norm.weight", size.hidden);
    matrix("ffn_gate.weight", size.hidden, choice.feedForward);
    matrix("ffn_up.weight", size.hidden, choice.feedForward);
    matrix("ffn_down.weight", choice.feedForward, size.hidden);
    if (choice.linear) {
      linearAttention();
    } else {
      fullAttention();
      if (choice.biases) {
        biases();
      }
    }
  }

  std::vector<ExpectedTensor> take() { return std::move(expected); }

 private:
  void fullAttention() {
    matrix("attn_q.weight", size.hidden, kQueryRows);
    matrix("attn_k.weight", size.hidden, kKeyRows);
    matrix("attn_v.weight", size.hidden, kKeyRows);
    matrix("attn_output.weight", kInner, size.hidden);
    vector("attn_q_norm.weight", kHeadDim);
    vector("attn_k_norm.weight", kHeadDim);
  }

  void biases() {
    vector("attn_q.bias", kQueryRows);
    vector("attn_k.bias", kKeyRows);
    vector("attn_v.bias", kKeyRows);
  }

  void linearAttention() {
    matrix("attn_qkv.weight", size.hidden, kQkvRows);
    matrix("attn_gate.weight", size.hidden, kInner);
    matrix("ssm_alpha.weight", size.hidden, kValueHeads);
    matrix("ssm_beta.weight", size.hidden, kValueHeads);
    matrix("ssm_out.weight", kInner, size.hidden);
    expected.push_back({prefix + "ssm_conv1d.weight", {kTaps, kQkvRows}, TensorRole::ConvTaps});
    vector("ssm_a", kValueHeads);
    vector("ssm_dt.bias", kValueHeads);
    vector("ssm_norm.weight", kStateDim);
  }

  void matrix(std::string_view name, uint64_t columns, uint64_t rows) {
    expected.push_back({prefix + std::string(name), {columns, rows}, TensorRole::Matrix});
  }
  void vector(std::string_view name, uint64_t length) {
    expected.push_back({prefix + std::string(name), {length}, TensorRole::Vector});
  }

  ModelSizes size;
  std::string prefix;
  std::vector<ExpectedTensor> expected;
};

}  // namespace

std::vector<ExpectedTensor> expectedTensors(const ModelSizes& sizes,
                                            const std::function<LayerChoice(uint32_t)>& layerAt) {
  Builder builder(sizes);
  for (uint32_t i = 0; i < kLayers; ++i) {
    builder.layer(i, layerAt(i));
  }
  return builder.take();
}

std::vector<ExpectedTensor> expectedTensors(const kel::ZYMLoader& loader) {
  const kel::TensorView* embedding = loader.findTensor("token_embd.weight");
  const ModelSizes sizes =
      embedding == nullptr ? ModelSizes{} : ModelSizes{embedding->dims[0], embedding->dims[1]};
  return expectedTensors(sizes, [&](uint32_t layer) { return layerOf(loader, layer); });
}

}  // namespace zym
