#include "qwen35/aligned_vectors.h"

#include <cstring>
#include <utility>

#include "container/model_tensors.h"
#include "qwen35/layer_tensors.h"

namespace qwen35 {

namespace {

bool isAligned(const kel::TensorView& view) {
  return reinterpret_cast<uintptr_t>(view.data) % alignof(float) == 0;
}

// What a tensor has beyond what is needed is left behind, lest a file make us copy all of itself.
AlignedVector alignedCopy(const kel::TensorView& view, size_t rows, size_t cols) {
  AlignedVector copy{view, std::make_unique<float[]>(rows * cols)};
  const size_t strideBytes = view.dims[0] * sizeof(float);
  for (size_t r = 0; r < rows; ++r) {
    std::memcpy(copy.values.get() + r * cols,
                static_cast<const uint8_t*>(view.data) + r * strideBytes, cols * sizeof(float));
  }
  copy.view.data = copy.values.get();
  copy.view.dims[0] = cols;
  return copy;
}

void alignVector(Model& m, const kel::ModelTensor& tensor, const kel::TensorView*& bound) {
  if (bound == nullptr || tensor.kind == kel::TensorKind::Matrix || isAligned(*bound)) {
    return;
  }
  const kel::ModelSizes sizes{.hidden = m.nEmbd, .vocab = m.nVocab};
  m.alignedVectors.push_back(
      alignedCopy(*bound, tensor.rows(m.shape, sizes), tensor.columns(m.shape, sizes)));
  bound = &m.alignedVectors.back().view;
}

}  // namespace

void alignVectors(Model& m) {
  alignVector(m, kel::tensorOf(kel::TensorRole::OutputNorm), m.outputNorm);
  for (Layer& layer : m.layers) {
    for (const auto group :
         {kel::TensorGroup::Common, kel::TensorGroup::Linear, kel::TensorGroup::Full}) {
      for (const kel::ModelTensor& tensor : kel::tensorsOf(group)) {
        // Without a query bias the others are neither read nor checked: they may lie anywhere.
        if (!tensor.required && layer.attnQBias == nullptr) {
          continue;
        }
        alignVector(m, tensor, layerTensor(layer, tensor.role));
      }
    }
  }
}

}  // namespace qwen35
