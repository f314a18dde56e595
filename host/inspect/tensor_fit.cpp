#include "host/inspect/tensor_fit.h"

#include <fmt/format.h>

#include "host/inspect/container_report.h"
#include "quant/blocks.h"

namespace zym {
namespace {

using kel::QuantType;
using kel::TensorView;

// Values per block and bytes per block; zeros for types without a product.
struct BlockFormat {
  uint64_t elements;
  uint64_t bytes;
};

BlockFormat blockFormat(QuantType type) {
  using namespace kel::quant;
  switch (type) {
    case QuantType::F32:
      return {1, sizeof(float)};
    case QuantType::BF16:
      return {1, sizeof(uint16_t)};
    case QuantType::Q8_0:
      return {kBlockLen, kQ80Bytes};
    case QuantType::Q4_K:
      return {kSuperBlockLen, kQ4KBytes};
    case QuantType::Q5_K:
      return {kSuperBlockLen, kQ5KBytes};
    default:
      return {0, 0};
  }
}

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
  const BlockFormat format = blockFormat(tensor.type);
  if (expected.role != TensorRole::Matrix && tensor.type != QuantType::F32) {
    found.push_back(fmt::format("is {}, needs F32", type));
  } else if (format.elements == 0) {
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
