#include "convert/model_layout.h"

#include <utility>

namespace kel::convert {

namespace {

constexpr uint64_t kQueryRows = 8192;  // 16 heads of 256 query rows, then 256 gate rows
constexpr uint64_t kKvRows = 1024;
constexpr uint64_t kHeadDim = 256;
constexpr uint64_t kAttentionWidth = 4096;
constexpr uint64_t kMixedRows = 8192;      // 2048 query, 2048 key, 4096 value rows
constexpr uint64_t kFirstValueRow = 4096;  // among them
constexpr uint64_t kValueRows = 4096;
constexpr uint64_t kTaps = 4;

class LayoutBuilder {
 public:
  explicit LayoutBuilder(const ModelSizes& modelSizes) : sizes(modelSizes) {}

  std::vector<TensorSpec> build() {
    const auto [h, ffn, vocab] = sizes;
    add("token_embd.weight", "embed_tokens.weight", {h, vocab}, TensorRole::Embedding);
    add("output_norm.weight", "norm.weight", {h}, TensorRole::Norm);
    for (uint32_t layer = 0; layer < kLayers; ++layer) {
      prefix = "blk." + std::to_string(layer) + ".";
      add("attn_norm.weight", "input_layernorm.weight", {h}, TensorRole::Norm);
      if (isFullLayer(layer)) {
        addFullAttention();
      } else {
        addLinearAttention();
      }
      add("post_attention_norm.weight", "post_attention_layernorm.weight", {h}, TensorRole::Norm);
      add("ffn_gate.weight", "mlp.gate_proj.weight", {h, ffn});
      add("ffn_up.weight", "mlp.up_proj.weight", {h, ffn});
      add("ffn_down.weight", "mlp.down_proj.weight", {ffn, h});
    }
    return std::move(specs);
  }

 private:
  TensorSpec& add(std::string_view suffix, std::string_view checkpoint, std::vector<uint64_t> dims,
                  TensorRole role = TensorRole::Matrix, HeadAxis heads = {}) {
    return specs.emplace_back(
        TensorSpec{prefix + std::string(suffix), suffix, checkpoint, std::move(dims), role, heads});
  }

  void addFullAttention() {
    const uint64_t h = sizes.hidden;
    add("attn_q.weight", "self_attn.q_proj.weight", {h, kQueryRows});
    add("attn_k.weight", "self_attn.k_proj.weight", {h, kKvRows});
    add("attn_v.weight", "self_attn.v_proj.weight", {h, kKvRows});
    add("attn_q.bias", "self_attn.q_proj.bias", {kQueryRows}, TensorRole::Vector).required = false;
    add("attn_k.bias", "self_attn.k_proj.bias", {kKvRows}, TensorRole::Vector).required = false;
    add("attn_v.bias", "self_attn.v_proj.bias", {kKvRows}, TensorRole::Vector).required = false;
    add("attn_output.weight", "self_attn.o_proj.weight", {kAttentionWidth, h});
    add("attn_q_norm.weight", "self_attn.q_norm.weight", {kHeadDim}, TensorRole::Norm);
    add("attn_k_norm.weight", "self_attn.k_norm.weight", {kHeadDim}, TensorRole::Norm);
  }

  void addLinearAttention() {
    using Kind = HeadAxis::Kind;
    const uint64_t h = sizes.hidden;
    const HeadAxis mixedRows{Kind::Rows, kFirstValueRow, kSsmHeadDim};
    const HeadAxis oneEach{Kind::Rows, 0, 1};
    add("attn_qkv.weight", "linear_attn.in_proj_qkv.weight", {h, kMixedRows}, TensorRole::Matrix,
        mixedRows);
    add("attn_gate.weight", "linear_attn.in_proj_z.weight", {h, kValueRows}, TensorRole::Matrix,
        {Kind::Rows, 0, kSsmHeadDim});
    add("ssm_beta.weight", "linear_attn.in_proj_b.weight", {h, kValueHeads}, TensorRole::Matrix,
        oneEach);
    add("ssm_alpha.weight", "linear_attn.in_proj_a.weight", {h, kValueHeads}, TensorRole::Matrix,
        oneEach);
    add("ssm_a", "linear_attn.A_log", {kValueHeads}, TensorRole::Decay, oneEach);
    add("ssm_dt.bias", "linear_attn.dt_bias", {kValueHeads}, TensorRole::Vector, oneEach);
    add("ssm_conv1d.weight", "linear_attn.conv1d.weight", {kTaps, kMixedRows}, TensorRole::Vector,
        mixedRows);
    // The gated norm inside the layer is stored as it is used, without the 1 taken off.
    add("ssm_norm.weight", "linear_attn.norm.weight", {kSsmHeadDim}, TensorRole::Vector);
    add("ssm_out.weight", "linear_attn.out_proj.weight", {kValueRows, h}, TensorRole::Matrix,
        {Kind::Columns, 0, kSsmHeadDim});
  }

  ModelSizes sizes;
  std::string prefix;
  std::vector<TensorSpec> specs;
};

}  // namespace

std::vector<TensorSpec> modelTensors(const ModelSizes& sizes) {
  return LayoutBuilder(sizes).build();
}

}  // namespace kel::convert
