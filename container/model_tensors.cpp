#include "container/model_tensors.h"

#include <algorithm>
#include <functional>
#include <iterator>

namespace kel {

namespace {

using enum TensorGroup;
using enum TensorKind;
using Role = TensorRole;

template <auto kMember>
uint64_t ofShape(const ModelShape& shape, const ModelSizes& /*sizes*/) {
  return std::invoke(kMember, shape);
}

template <auto kMember>
uint64_t ofFile(const ModelShape& /*shape*/, const ModelSizes& sizes) {
  return std::invoke(kMember, sizes);
}

uint64_t one(const ModelShape& /*shape*/, const ModelSizes& /*sizes*/) {
  return 1;
}

constexpr auto kHidden = ofFile<&ModelSizes::hidden>;
constexpr auto kFeedForward = ofFile<&ModelSizes::feedForward>;
constexpr auto kVocab = ofFile<&ModelSizes::vocab>;
constexpr auto kQueryRows = ofShape<&ModelShape::queryRows>;
constexpr auto kKvRows = ofShape<&ModelShape::kvRows>;
constexpr auto kAttentionWidth = ofShape<&ModelShape::attentionWidth>;
constexpr auto kHeadDim = ofShape<&ModelShape::headDim>;
constexpr auto kChannels = ofShape<&ModelShape::convChannels>;
constexpr auto kTaps = ofShape<&ModelShape::convTaps>;
constexpr auto kValueWidth = ofShape<&ModelShape::linearValueWidth>;
constexpr auto kValueHeads = ofShape<&ModelShape::linearValueHeads>;
constexpr auto kValueDim = ofShape<&ModelShape::linearValueDim>;

// In the order of the roles.
constexpr ModelTensor kTensors[] = {
    {Role::Embedding, Model, Matrix, "token_embd.weight", kVocab, kHidden},
    {Role::OutputNorm, Model, Vector, "output_norm.weight", one, kHidden},
    {Role::Output, Model, Matrix, "output.weight", kVocab, kHidden, false},

    {Role::AttnNorm, Common, Vector, "attn_norm.weight", one, kHidden},
    {Role::PostAttnNorm, Common, Vector, "post_attention_norm.weight", one, kHidden},
    {Role::FfnGate, Common, Matrix, "ffn_gate.weight", kFeedForward, kHidden},
    {Role::FfnUp, Common, Matrix, "ffn_up.weight", kFeedForward, kHidden},
    {Role::FfnDown, Common, Matrix, "ffn_down.weight", kHidden, kFeedForward},

    {Role::AttnQkv, Linear, Matrix, "attn_qkv.weight", kChannels, kHidden},
    {Role::AttnGate, Linear, Matrix, "attn_gate.weight", kValueWidth, kHidden},
    {Role::SsmBeta, Linear, Matrix, "ssm_beta.weight", kValueHeads, kHidden},
    {Role::SsmAlpha, Linear, Matrix, "ssm_alpha.weight", kValueHeads, kHidden},
    {Role::SsmDtBias, Linear, Vector, "ssm_dt.bias", one, kValueHeads},
    {Role::SsmA, Linear, Vector, "ssm_a", one, kValueHeads},
    {Role::SsmConv1d, Linear, ConvTaps, "ssm_conv1d.weight", kChannels, kTaps},
    {Role::SsmNorm, Linear, Vector, "ssm_norm.weight", one, kValueDim},
    {Role::SsmOut, Linear, Matrix, "ssm_out.weight", kHidden, kValueWidth},

    {Role::AttnQ, Full, Matrix, "attn_q.weight", kQueryRows, kHidden},
    {Role::AttnK, Full, Matrix, "attn_k.weight", kKvRows, kHidden},
    {Role::AttnV, Full, Matrix, "attn_v.weight", kKvRows, kHidden},
    {Role::AttnQBias, Full, Vector, "attn_q.bias", one, kQueryRows, false},
    {Role::AttnKBias, Full, Vector, "attn_k.bias", one, kKvRows, false},
    {Role::AttnVBias, Full, Vector, "attn_v.bias", one, kKvRows, false},
    {Role::AttnOutput, Full, Matrix, "attn_output.weight", kHidden, kAttentionWidth},
    {Role::AttnQNorm, Full, Vector, "attn_q_norm.weight", one, kHeadDim},
    {Role::AttnKNorm, Full, Vector, "attn_k_norm.weight", one, kHeadDim},
};

constexpr bool isInRoleOrder() {
  for (size_t i = 0; i < std::size(kTensors); ++i) {
    if (static_cast<size_t>(kTensors[i].role) != i) {
      return false;
    }
  }
  return true;
}
static_assert(isInRoleOrder());
static_assert(std::is_sorted(std::begin(kTensors), std::end(kTensors),
                             [](const ModelTensor& a, const ModelTensor& b) {
                               return a.group < b.group;
                             }));

}  // namespace

std::span<const ModelTensor> tensorsOf(TensorGroup group) {
  const auto isOfGroup = [group](const ModelTensor& tensor) { return tensor.group == group; };
  const auto* first = std::find_if(std::begin(kTensors), std::end(kTensors), isOfGroup);
  return {first, std::find_if_not(first, std::end(kTensors), isOfGroup)};
}

const ModelTensor& tensorOf(TensorRole role) {
  return kTensors[static_cast<size_t>(role)];
}

std::string tensorName(const ModelTensor& tensor, uint32_t layer) {
  std::string name;
  if (tensor.group != TensorGroup::Model) {
    name.append("blk.").append(std::to_string(layer)).append(".");
  }
  return name.append(tensor.suffix);
}

std::vector<uint64_t> tensorDims(const ModelTensor& tensor, const ModelShape& shape,
                                 const ModelSizes& sizes) {
  const uint64_t columns = tensor.columns(shape, sizes);
  if (tensor.kind == TensorKind::Vector) {
    return {columns};
  }
  return {columns, tensor.rows(shape, sizes)};
}

}  // namespace kel
