// Whether the config.json of a checkpoint directory describes a model that the runtime can run.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>

#include "container/status.h"
#include "convert/source_model.h"

namespace kel::convert {

struct HfConfig {
  StatedSize hidden;
  StatedSize feedForward;
  StatedSize vocab;
  int32_t eosId = -1;
  int32_t bosId = -1;
  bool untied = false;  // says that the output head is not the embedding
};

// Checks every field that is present and names the first that does not fit, with its value and the
// one needed. A wrapper's values lie under text_config, those of a text-only model at the top.
Status readHfConfig(const nlohmann::json& file, HfConfig& out);

}  // namespace kel::convert
