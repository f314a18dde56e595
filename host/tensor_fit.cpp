#include "host/tensor_fit.h"

#include <fmt/format.h>

#include "host/container_report.h"
#include "quant/block_sizes.h"

namespace zym {
namespace {

using kel::QuantType;
using kel::TensorView;

bool shapeFits(const ExpectedTensor& expected, const TensorView& tensor) {
  const std::optional<uint64_t> elements = elementCount(tensor.dims, tensor.rank);
  if (!elements) {
    return false;
  }
  if (expected.role == TensorRole::Vector) {
    return *elements >= expected.dims[0];
  }
  const bool columnsFit = expected.role == TensorRole::ConvTaps
                              ? tensor.dims[0] >= expected.dims[0]
                              : tensor.dims[0] == expected.dims[0];
  return columnsFit && rowCount(tensor) == expected.dims[1];
}

}  // namespace

std::optional<uint64_t> elementCount(const uint64_t* dims, size_t rank) {
  uint64_t count = 1;
  for (size_t i = 0; i < rank; ++i) {
    if (__builtin_mul_overflow(count, dims[i], &count)) {
      return std::nullopt;
    }
  }
  return count;
}

std::optional<uint64_t> rowCount(const TensorView& tensor) {
  return tensor.rank < 2 ? 1 : elementCount(tensor.dims + 1, tensor.rank - 1U);
}

std::vector<std::string> misfits(const ExpectedTensor& expected, const TensorView& tensor) {
  std::vector<std::string> found;
  if (!shapeFits(expected, tensor)) {
    found.push_back(
        fmt::format("has shape {}, needs {}", shapeText(tensor), fmt::join(expected.dims, " x ")));
  }
  const char* type = kel::quantTypeName(tensor.type);
  const kel::quant::BlockFormat format = kel::quant::blockFormat(tensor.type);
  if (expected.role != TensorRole::Matrix && tensor.type != QuantType::F32) {
    found.push_back(fmt::format("is {}, needs F32", type));
  } else if (!kel::hasProduct(tensor.type)) {
    found.push_back(
        fmt::format("is {}, which cannot be multiplied; `zym convert` stores it otherwise", type));
  } else if (tensor.dims[0] % format.elements != 0) {
    found.push_back(
        fmt::format("has rows of {}, which end inside a block of {}", tensor.dims[0], type));
  } else if (format.elements == 1 && reinterpret_cast<uintptr_t>(tensor.data) % format.bytes != 0) {
    found.push_back("is not aligned to its values");
  }
  return found;
}

}  // namespace zym
