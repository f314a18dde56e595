#include "convert/norm_check.h"

#include "convert/errors.h"

namespace kel::convert {

namespace {

constexpr double kLeastMean = 0.5;
// Of weights stored less 1. Below: too few negative ones for numbers about 0.
constexpr double kMostShiftedMean = 0.5;
constexpr double kFewNegative = 0.001;

}  // namespace

Status checkNorms(const std::vector<PlannedTensor>& plan, const SourceModel& source) {
  double sum = 0;
  double negative = 0;
  double count = 0;
  std::vector<float> values;
  for (const PlannedTensor& tensor : plan) {
    if (tensor.spec.tensor->role != TensorRole::AttnNorm) {
      continue;
    }
    values.resize(tensor.spec.dims[0]);
    const SourceTypeInfo& type = sourceTypeInfo(*tensor.source->type);
    type.decode(tensor.source->data, values.data(), values.size());
    for (const float value : values) {
      sum += value;
      negative += value < 0 ? 1 : 0;
    }
    count += static_cast<double>(values.size());
  }
  const double mean = sum / count;
  if (source.normsLessOne && mean > kMostShiftedMean && negative < kFewNegative * count) {
    return unsupported(
        "the mean of the stored {} is {:.3f} and hardly one is negative; the importer needs "
        "weights "
        "stored less 1: this directory was converted for another framework",
        "input_layernorm.weight", mean);
  }
  const double asUsed = source.normsLessOne ? 1 + mean : mean;
  if (!(asUsed > kLeastMean)) {
    return unsupported(
        "the mean of {} is {:.3f}; the runtime needs norms with the 1 added, above {}",
        tensorOf(TensorRole::AttnNorm).suffix, asUsed, kLeastMean);
  }
  return Status::success();
}

}  // namespace kel::convert
