// What the config.json of a checkpoint directory says of its model.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>

#include "container/status.h"
#include "convert/source_model.h"

namespace kel::convert {

struct HfConfig {
  ModelShape shape{};
  StatedSize hidden;
  StatedSize feedForward;
  StatedSize vocab;
  int32_t eosId = -1;
  int32_t bosId = -1;
  int32_t paddingId = -1;
  bool untied = false;  // says that the output head is not the embedding
};

// Names the first field that is missing, is no model's of this family, or contradicts another, with
// its value and the one needed. The number of positions alone may be absent. A wrapper's values lie
// under text_config, those of a text-only model at the top.
Status readHfConfig(const nlohmann::json& file, HfConfig& out);

}  // namespace kel::convert
