#include "qwen35/run_check.h"

#include <vector>

#include "container/model_fit.h"

namespace qwen35 {

std::string findUnfitTensor(const kel::ZYMLoader& loader, const Model& m) {
  const std::vector<kel::ModelFault> faults = kel::findModelFaults(loader, m.shape);
  return faults.empty() ? std::string() : faults[0].tensor + ": " + faults[0].what;
}

}  // namespace qwen35
