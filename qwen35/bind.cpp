// Lookup of every weight by name.

#include "container/model_tensors.h"
#include "qwen35/layer_tensors.h"
#include "qwen35/model.h"

namespace qwen35 {

namespace {

// All are looked up, whatever is missing.
bool bindGroup(const kel::ZYMLoader& loader, kel::TensorGroup group, uint32_t index, Layer& layer) {
  bool isComplete = true;
  for (const kel::ModelTensor& tensor : kel::tensorsOf(group)) {
    const kel::TensorView*& field = layerTensor(layer, tensor.role);
    field = loader.findTensor(kel::tensorName(tensor, index));
    isComplete = isComplete && (field != nullptr || !tensor.required);
  }
  return isComplete;
}

const kel::TensorView* findTensor(const kel::ZYMLoader& loader, kel::TensorRole role,
                                  uint32_t layer = 0) {
  return loader.findTensor(kel::tensorName(kel::tensorOf(role), layer));
}

bool initLinearLayer(const kel::ZYMLoader& loader, uint32_t index, const Model& m, Layer& layer) {
  if (!bindGroup(loader, kel::TensorGroup::Linear, index, layer)) {
    return false;
  }
  layer.ssmState = StateBuffer(m.ssmDState * m.ssmDValue() * m.ssmHeads);
  layer.convState = StateBuffer(m.convChannels() * (m.convKernel - 1));
  return true;
}

bool initFullLayer(const kel::ZYMLoader& loader, uint32_t index, const Model& m, size_t maxCtx,
                   Layer& layer) {
  if (!bindGroup(loader, kel::TensorGroup::Full, index, layer)) {
    return false;
  }
  const size_t nBytes = m.nHeadKv * m.headDim * maxCtx * cacheElementBytes(m.cacheType);
  const size_t nFloats = (nBytes + sizeof(float) - 1) / sizeof(float);
  layer.kCache = StateBuffer(nFloats);
  layer.vCache = StateBuffer(nFloats);
  return true;
}

bool initLayer(const kel::ZYMLoader& loader, uint32_t index, const Model& m, size_t maxCtx,
               Layer& layer) {
  if (!bindGroup(loader, kel::TensorGroup::Common, index, layer)) {
    return false;
  }
  // The output projection alone tells the kind: a layer without it is full attention, whatever
  // other tensors the file holds for it.
  layer.isLinear = findTensor(loader, kel::TensorRole::SsmOut, index) != nullptr;
  return layer.isLinear ? initLinearLayer(loader, index, m, layer)
                        : initFullLayer(loader, index, m, maxCtx, layer);
}

}  // namespace

bool initLayers(const kel::ZYMLoader& loader, Model& m, size_t maxCtx) {
  m.layers.clear();
  m.layers.resize(m.shape.layers);
  for (uint32_t i = 0; i < m.shape.layers; ++i) {
    if (!initLayer(loader, i, m, maxCtx, m.layers[i])) {
      return false;
    }
  }
  m.nLayer = m.layers.size();
  return true;
}

bool bindModel(const kel::ZYMLoader& loader, Model& m, size_t maxCtx) {
  m.tokEmbd = findTensor(loader, kel::TensorRole::Embedding);
  m.outputNorm = findTensor(loader, kel::TensorRole::OutputNorm);
  m.output = m.shape.ownOutput ? findTensor(loader, kel::TensorRole::Output) : nullptr;
  if (m.tokEmbd == nullptr || m.outputNorm == nullptr ||
      (m.shape.ownOutput && m.output == nullptr)) {
    return false;
  }
  m.nEmbd = m.tokEmbd->dims[0];
  m.nVocab = m.tokEmbd->dims[1];
  m.maxCtx = maxCtx;
  m.nLayer = m.layers.size();
  return true;
}

}  // namespace qwen35
