// A checkpoint directory of the training framework as a model: config.json, safetensors in one file
// or in shards, tokenizer.json.
#pragma once

#include <string>

#include "container/status.h"
#include "convert/source_model.h"

namespace kel::convert {

// Fills everything; out.files holds the mappings of the weight files.
Status readHfDirectory(const std::string& path, SourceModel& out);

}  // namespace kel::convert
