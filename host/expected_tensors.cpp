#include "host/expected_tensors.h"

#include <string_view>
#include <utility>

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

uint64_t dimension(const kel::ZYMLoader& loader, const std::string& name, size_t index) {
  const kel::TensorView* tensor = loader.findTensor(name);
  return tensor == nullptr ? 0 : tensor->dims[index];
}

class Builder {
 public:
  explicit Builder(const ModelSizes& sizes) : size(sizes) {
    matrix("token_embd.weight", size.hidden, size.vocab);
    vector("output_norm.weight", size.hidden);
  }

  void layer(uint32_t index, bool linear) {
    prefix = "blk." + std::to_string(index) + ".";
    vector("attn_norm.weight", size.hidden);
    vector("post_attention_norm.weight", size.hidden);
    matrix("ffn_gate.weight", size.hidden, size.feedForward);
    matrix("ffn_up.weight", size.hidden, size.feedForward);
    matrix("ffn_down.weight", size.feedForward, size.hidden);
    if (linear) {
      linearAttention();
    } else {
      fullAttention();
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

  void linearAttention() {
    matrix("attn_qkv.weight", size.hidden, kQkvRows);
    matrix("attn_gate.weight", size.hidden, kInner);
    matrix("ssm_alpha.weight", size.hidden, kValueHeads);
    matrix("ssm_beta.weight", size.hidden, kValueHeads);
    matrix("ssm_out.weight", kInner, size.hidden);
    expected.push_back({prefix + "ssm_conv1d.weight", {kTaps, kQkvRows}, true});
    vector("ssm_a", kValueHeads);
    vector("ssm_dt.bias", kValueHeads);
    vector("ssm_norm.weight", kStateDim);
  }

  void matrix(std::string_view name, uint64_t columns, uint64_t rows) {
    expected.push_back({prefix + std::string(name), {columns, rows}, false});
  }
  void vector(std::string_view name, uint64_t length) {
    expected.push_back({prefix + std::string(name), {length}, true});
  }

  ModelSizes size;
  std::string prefix;
  std::vector<ExpectedTensor> expected;
};

}  // namespace

std::vector<ExpectedTensor> expectedTensors(const ModelSizes& sizes,
                                            const std::function<bool(uint32_t)>& isLinear) {
  Builder builder(sizes);
  for (uint32_t i = 0; i < kLayers; ++i)
    builder.layer(i, isLinear(i));
  return builder.take();
}

std::vector<ExpectedTensor> expectedTensors(const kel::ZYMLoader& loader) {
  const ModelSizes sizes = {dimension(loader, "token_embd.weight", 0),
                            dimension(loader, "token_embd.weight", 1),
                            dimension(loader, "blk.0.ffn_gate.weight", 1)};
  return expectedTensors(sizes, [&](uint32_t layer) {
    return loader.findTensor("blk." + std::to_string(layer) + ".ssm_out.weight") != nullptr;
  });
}

}  // namespace zym
