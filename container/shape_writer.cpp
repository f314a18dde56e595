#include "container/shape_keys.h"
#include "container/shape_metadata.h"
#include "container/zym2_writer.h"

namespace kel {

using namespace shape_keys;

void writeShape(ZYM2Writer& writer, const ModelShape& shape, const ModelSizes& sizes,
                uint32_t predictionLayers) {
  const auto word = [](uint64_t value) { return static_cast<uint32_t>(value); };
  const Numbers numbers{.blocks = shape.layers + predictionLayers,
                        .predictionLayers = predictionLayers,
                        .context = word(shape.contextLength),
                        .hidden = word(sizes.hidden),
                        .feedForward = word(sizes.feedForward),
                        .queryHeads = word(shape.queryHeads),
                        .kvHeads = word(shape.kvHeads),
                        .keyLength = word(shape.headDim),
                        .valueLength = word(shape.headDim),
                        .ropeDim = word(shape.ropeDim),
                        .convTaps = word(shape.convTaps),
                        .stateSize = word(shape.linearKeyDim),
                        .groups = word(shape.linearKeyHeads),
                        .timeSteps = word(shape.linearValueHeads),
                        .innerSize = word(shape.linearValueWidth()),
                        .interval = shape.fullInterval(),
                        .normEps = static_cast<float>(shape.normEps),
                        .ropeBase = static_cast<float>(shape.ropeBase)};
  for (const Key<uint32_t>& key : kRequired) {
    writer.addMetaU32(key.name, numbers.*key.field);
  }
  for (const Key<float>& key : kFractions) {
    writer.addMetaF32(key.name, numbers.*key.field);
  }
  if (predictionLayers != 0) {
    writer.addMetaU32(kPredictionLayers, predictionLayers);
  }
  if (numbers.interval != 0) {
    writer.addMetaU32(kInterval, numbers.interval);
    return;
  }
  std::vector<uint32_t> recurrent;
  for (uint32_t layer = 0; layer < shape.layers; ++layer) {
    recurrent.push_back(shape.isFull(layer) ? 0 : 1);
  }
  writer.addMetaU32Array(kRecurrentLayers, recurrent);
}

}  // namespace kel
