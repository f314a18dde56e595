// Lookup of every weight by name.

#include <string>

#include "qwen35/model.h"

namespace qwen35 {

namespace {

struct Binding {
  const kel::TensorView* Layer::*field;
  const char* suffix;
  bool required = true;
};

constexpr Binding kCommonBindings[] = {
    {&Layer::attnNorm, "attn_norm.weight"}, {&Layer::postAttnNorm, "post_attention_norm.weight"},
    {&Layer::ffnGate, "ffn_gate.weight"},   {&Layer::ffnUp, "ffn_up.weight"},
    {&Layer::ffnDown, "ffn_down.weight"},
};

constexpr Binding kLinearBindings[] = {
    {&Layer::attnQkv, "attn_qkv.weight"},     {&Layer::attnGate, "attn_gate.weight"},
    {&Layer::ssmBeta, "ssm_beta.weight"},     {&Layer::ssmAlpha, "ssm_alpha.weight"},
    {&Layer::ssmDtBias, "ssm_dt.bias"},       {&Layer::ssmA, "ssm_a"},
    {&Layer::ssmConv1d, "ssm_conv1d.weight"}, {&Layer::ssmNorm, "ssm_norm.weight"},
    {&Layer::ssmOut, "ssm_out.weight"},
};

constexpr Binding kFullBindings[] = {
    {&Layer::attnQ, "attn_q.weight"},           {&Layer::attnK, "attn_k.weight"},
    {&Layer::attnV, "attn_v.weight"},           {&Layer::attnQBias, "attn_q.bias", false},
    {&Layer::attnKBias, "attn_k.bias", false},  {&Layer::attnVBias, "attn_v.bias", false},
    {&Layer::attnOutput, "attn_output.weight"}, {&Layer::attnQNorm, "attn_q_norm.weight"},
    {&Layer::attnKNorm, "attn_k_norm.weight"},
};

template <size_t N>
bool bindAll(const kel::ZYMLoader& loader, const std::string& prefix, const Binding (&bindings)[N],
             Layer& layer) {
  bool complete = true;
  for (const Binding& binding : bindings) {
    layer.*binding.field = loader.findTensor(prefix + binding.suffix);
    complete = complete && (layer.*binding.field != nullptr || !binding.required);
  }
  return complete;
}

bool initLinearLayer(const kel::ZYMLoader& loader, const std::string& prefix, const Model& m,
                     Layer& layer) {
  if (!bindAll(loader, prefix, kLinearBindings, layer)) {
    return false;
  }
  layer.ssmState = StateBuffer(m.ssmDState * m.ssmDState * m.ssmHeads);
  layer.convState = StateBuffer(m.convChannels() * (m.convKernel - 1));
  return true;
}

bool initFullLayer(const kel::ZYMLoader& loader, const std::string& prefix, const Model& m,
                   size_t maxCtx, Layer& layer) {
  if (!bindAll(loader, prefix, kFullBindings, layer)) {
    return false;
  }
  layer.kCache = StateBuffer(m.nHeadKv * m.headDim * maxCtx);
  layer.vCache = StateBuffer(m.nHeadKv * m.headDim * maxCtx);
  return true;
}

bool initLayer(const kel::ZYMLoader& loader, const std::string& prefix, const Model& m,
               size_t maxCtx, Layer& layer) {
  if (!bindAll(loader, prefix, kCommonBindings, layer)) {
    return false;
  }
  // The output projection alone tells the kind: a layer without it is full attention, whatever
  // other tensors the file holds for it.
  layer.isLinear = loader.findTensor(prefix + "ssm_out.weight") != nullptr;
  return layer.isLinear ? initLinearLayer(loader, prefix, m, layer)
                        : initFullLayer(loader, prefix, m, maxCtx, layer);
}

}  // namespace

bool initLayers(kel::ZYMLoader& loader, Model& m, size_t maxCtx) {
  m.layers.clear();
  m.layers.resize(kLayers);
  for (size_t i = 0; i < kLayers; ++i) {
    const std::string prefix = "blk." + std::to_string(i) + ".";
    if (!initLayer(loader, prefix, m, maxCtx, m.layers[i])) {
      return false;
    }
  }
  m.nLayer = m.layers.size();
  return true;
}

bool bindModel(kel::ZYMLoader& loader, Model& m, size_t maxCtx) {
  m.tokEmbd = loader.findTensor("token_embd.weight");
  m.outputNorm = loader.findTensor("output_norm.weight");
  if (m.tokEmbd == nullptr || m.outputNorm == nullptr) {
    return false;
  }
  m.nEmbd = m.tokEmbd->dims[0];
  m.nVocab = m.tokEmbd->dims[1];
  m.maxCtx = maxCtx;
  m.nLayer = m.layers.size();
  return true;
}

}  // namespace qwen35
