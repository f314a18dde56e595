#include "convert/prediction_layer.h"

namespace kel::convert {

void decidePredictionLayer(SourceModel& source, bool kept) {
  source.predictionLayers = 0;
  if (!kept) {
    if (!source.predictionTensors.empty()) {
      source.skipped[kPredictionKind] += source.predictionTensors.size();
    }
  } else if (source.predictionTensors.empty()) {
    source.remarks.emplace_back("the source has no layer of multi-token prediction to keep");
  } else {
    source.predictionLayers = 1;
    source.tensors.merge(source.predictionTensors);
  }
  source.predictionTensors.clear();
}

}  // namespace kel::convert
