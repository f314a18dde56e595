// Any bytes as a GGUF file, up to the plan of a conversion. Tensors lie inside the file, and every
// byte that a plan would read is there.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "convert/gguf_model.h"
#include "convert/gguf_reader.h"
#include "convert/output_head.h"
#include "convert/prediction_layer.h"
#include "convert/tensor_plan.h"

namespace {

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

uint64_t byteSum(const uint8_t* data, uint64_t nBytes) {
  uint64_t sum = 0;
  for (uint64_t i = 0; i < nBytes; ++i) {
    sum += data[i];
  }
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kel::convert::GgufFile file;
  if (!file.parse(data, size).ok()) {
    return 0;
  }
  for (const kel::convert::GgufTensor& tensor : file.tensors()) {
    require(byteSum(tensor.data, tensor.nBytes) != UINT64_MAX);
  }
  kel::convert::SourceModel model;
  if (!readGgufModel(file, model).ok()) {
    return 0;
  }
  require(model.vocabulary.tokens.size() == model.vocabulary.types.size());
  kel::convert::TensorPlan plan;
  kel::convert::ProgressSink quiet;
  decidePredictionLayer(model, true);
  kel::Status status = decideOutputHead(model, quiet);
  if (status.ok()) {
    status = planTensors(model, {}, plan);
  }
  require(status.ok() == status.message.empty());
  return 0;
}
