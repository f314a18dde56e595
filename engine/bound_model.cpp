#include "engine/bound_model.h"

#include <algorithm>
#include <string>

#include "qwen35/aligned_vectors.h"

namespace engine {

kel::Status choosePositions(const Model& model, uint64_t& positions) {
  const uint64_t most = model.shape().contextLength;
  if (positions > most) {
    return kel::Status::invalid("a context of " + std::to_string(positions) +
                                " positions; the model has room for " + std::to_string(most));
  }
  if (positions == 0) {
    positions = std::min(most, kDefaultPositions);
  }
  return kel::Status::success();
}

// Binding cannot fail: the model was found to be complete when it was opened.
qwen35::Model boundModel(const Model& model, uint64_t positions, qwen35::CacheType cacheType) {
  qwen35::Model weights{.shape = model.shape(), .cacheType = cacheType};
  qwen35::initLayers(model.file(), weights, positions);
  qwen35::bindModel(model.file(), weights, positions);
  qwen35::alignVectors(weights);
  return weights;
}

}  // namespace engine
