#include "qwen35/layer_tensors.h"

#include <algorithm>
#include <iterator>

namespace qwen35 {

namespace {

using Role = kel::TensorRole;

struct Field {
  Role role;
  const kel::TensorView* Layer::*field;
};

constexpr Field kFields[] = {
    {Role::AttnNorm, &Layer::attnNorm},
    {Role::PostAttnNorm, &Layer::postAttnNorm},
    {Role::FfnGate, &Layer::ffnGate},
    {Role::FfnUp, &Layer::ffnUp},
    {Role::FfnDown, &Layer::ffnDown},
    {Role::AttnQkv, &Layer::attnQkv},
    {Role::AttnGate, &Layer::attnGate},
    {Role::SsmBeta, &Layer::ssmBeta},
    {Role::SsmAlpha, &Layer::ssmAlpha},
    {Role::SsmDtBias, &Layer::ssmDtBias},
    {Role::SsmA, &Layer::ssmA},
    {Role::SsmConv1d, &Layer::ssmConv1d},
    {Role::SsmNorm, &Layer::ssmNorm},
    {Role::SsmOut, &Layer::ssmOut},
    {Role::AttnQ, &Layer::attnQ},
    {Role::AttnK, &Layer::attnK},
    {Role::AttnV, &Layer::attnV},
    {Role::AttnQBias, &Layer::attnQBias},
    {Role::AttnKBias, &Layer::attnKBias},
    {Role::AttnVBias, &Layer::attnVBias},
    {Role::AttnOutput, &Layer::attnOutput},
    {Role::AttnQNorm, &Layer::attnQNorm},
    {Role::AttnKNorm, &Layer::attnKNorm},
};

}  // namespace

const kel::TensorView*& layerTensor(Layer& layer, kel::TensorRole role) {
  const auto* found = std::find_if(std::begin(kFields), std::end(kFields),
                                   [role](const Field& f) { return f.role == role; });
  return layer.*found->field;
}

}  // namespace qwen35
