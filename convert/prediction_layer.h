// The layer of multi-token prediction: kept on request, otherwise left out.
#pragma once

#include "convert/source_model.h"

namespace kel::convert {

// Makes the source's prediction tensors tensors of the model (kept), or counts them as left out.
// Sets source.predictionLayers.
void decidePredictionLayer(SourceModel& source, bool kept);

}  // namespace kel::convert
