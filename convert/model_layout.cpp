#include "convert/model_layout.h"

#include <algorithm>
#include <iterator>

namespace kel::convert {

namespace {

using Role = TensorRole;

// Fields in the order of the table's columns.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Origin {
  Role role;
  std::string_view name;  // without its layer
  ValueForm form = ValueForm::Plain;
};

constexpr Origin kOrigins[] = {
    {Role::Embedding, "embed_tokens.weight"},
    {Role::OutputNorm, "norm.weight", ValueForm::Norm},
    {Role::Output, "lm_head.weight"},
    {Role::AttnNorm, "input_layernorm.weight", ValueForm::Norm},
    {Role::PostAttnNorm, "post_attention_layernorm.weight", ValueForm::Norm},
    {Role::FfnGate, "mlp.gate_proj.weight"},
    {Role::FfnUp, "mlp.up_proj.weight"},
    {Role::FfnDown, "mlp.down_proj.weight"},
    {Role::AttnQkv, "linear_attn.in_proj_qkv.weight"},
    {Role::AttnGate, "linear_attn.in_proj_z.weight"},
    {Role::SsmBeta, "linear_attn.in_proj_b.weight"},
    {Role::SsmAlpha, "linear_attn.in_proj_a.weight"},
    {Role::SsmDtBias, "linear_attn.dt_bias"},
    {Role::SsmA, "linear_attn.A_log", ValueForm::Decay},
    {Role::SsmConv1d, "linear_attn.conv1d.weight"},
    // The gated norm inside the layer is stored as it is used, without the 1 taken off.
    {Role::SsmNorm, "linear_attn.norm.weight"},
    {Role::SsmOut, "linear_attn.out_proj.weight"},
    {Role::AttnQ, "self_attn.q_proj.weight"},
    {Role::AttnK, "self_attn.k_proj.weight"},
    {Role::AttnV, "self_attn.v_proj.weight"},
    {Role::AttnQBias, "self_attn.q_proj.bias"},
    {Role::AttnKBias, "self_attn.k_proj.bias"},
    {Role::AttnVBias, "self_attn.v_proj.bias"},
    {Role::AttnOutput, "self_attn.o_proj.weight"},
    {Role::AttnQNorm, "self_attn.q_norm.weight", ValueForm::Norm},
    {Role::AttnKNorm, "self_attn.k_norm.weight", ValueForm::Norm},
};

HeadAxis headAxis(Role role, const ModelShape& shape) {
  using Kind = HeadAxis::Kind;
  switch (role) {
    case Role::AttnQkv:
    case Role::SsmConv1d:  // queries and keys come before the values
      return {Kind::Rows, 2 * shape.linearKeyWidth(), shape.linearValueDim};
    case Role::AttnGate:
      return {Kind::Rows, 0, shape.linearValueDim};
    case Role::SsmBeta:
    case Role::SsmAlpha:
    case Role::SsmDtBias:
    case Role::SsmA:
      return {Kind::Rows, 0, 1};
    case Role::SsmOut:
      return {Kind::Columns, 0, shape.linearValueDim};
    default:
      return {};
  }
}

TensorSpec specOf(const ModelTensor& tensor, uint32_t layer, const ModelSizes& sizes) {
  const auto* origin = std::find_if(std::begin(kOrigins), std::end(kOrigins),
                                    [&](const Origin& o) { return o.role == tensor.role; });
  std::string checkpoint;
  if (tensor.group != TensorGroup::Model) {
    checkpoint.append("layers.").append(std::to_string(layer)).append(".");
  }
  return {.tensor = &tensor,
          .name = tensorName(tensor, layer),
          .checkpoint = checkpoint.append(origin->name),
          .dims = tensorDims(tensor, kFixedShape, sizes),
          .form = origin->form,
          .heads = headAxis(tensor.role, kFixedShape)};
}

}  // namespace

std::vector<TensorSpec> modelTensors(const ModelSizes& sizes) {
  std::vector<TensorSpec> specs;
  for (const ModelTensor& tensor : tensorsOf(TensorGroup::Model)) {
    specs.push_back(specOf(tensor, 0, sizes));
  }
  for (uint32_t layer = 0; layer < kFixedShape.layers; ++layer) {
    const auto attention = kFixedShape.isFull(layer) ? TensorGroup::Full : TensorGroup::Linear;
    for (const ModelTensor& tensor : tensorsOf(TensorGroup::Common)) {
      if (tensor.role == Role::PostAttnNorm) {  // attention is used before it
        for (const ModelTensor& inside : tensorsOf(attention)) {
          specs.push_back(specOf(inside, layer, sizes));
        }
      }
      specs.push_back(specOf(tensor, layer, sizes));
    }
  }
  return specs;
}

}  // namespace kel::convert
