// The weight files of a checkpoint directory and what their tensors are called in the container.
#pragma once

#include <string>

#include "container/status.h"
#include "convert/source_model.h"

namespace kel::convert {

// Fills tensors, predictionTensors, outputHead, skipped, files and fileNames. folder ends in no
// slash.
Status readHfWeights(const std::string& folder, SourceModel& out);

}  // namespace kel::convert
