// What people give the converter that it cannot convert: what it is, and what to give instead.
#pragma once

#include <string>

#include "container/status.h"

namespace kel::convert {

// A file that is no GGUF file. Never ok.
Status refuseFile(const std::string& path);

// A folder without a config.json. Never ok.
Status refuseFolder(const std::string& path);

// A folder with a config.json but neither model.safetensors nor an index. Ok where nothing in it
// tells what it is.
Status refuseFolderWithoutWeights(const std::string& path);

}  // namespace kel::convert
