#include "convert/layer_kinds.h"

#include "convert/errors.h"

namespace kel::convert {

Status LayerKinds::state(const std::string& field, const LayerSet& full) {
  if (statedBy.empty()) {
    statedBy = field;
    stated = full;
    return Status::success();
  }
  for (uint32_t layer = 0; layer < layers; ++layer) {
    if (full.contains(layer) != stated.contains(layer)) {
      return unsupported("layer {} is of {} attention by {}, but not by {}", layer,
                         full.contains(layer) ? "full" : "linear", field, statedBy);
    }
  }
  return Status::success();
}

Status LayerKinds::stateInterval(const std::string& field, uint64_t interval) {
  if (interval == 0 || interval > LayerSet::kCapacity) {
    return misfit(field, interval, fmt::format("1 to {}", LayerSet::kCapacity));
  }
  return state(field, LayerSet::every(static_cast<uint32_t>(interval), layers));
}

Status LayerKinds::get(const std::string& example, LayerSet& out) const {
  if (statedBy.empty()) {
    return unsupported("{} is missing; the importer needs it", example);
  }
  out = stated;
  return Status::success();
}

}  // namespace kel::convert
