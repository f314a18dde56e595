#include "qwen35/weights.h"

#include <algorithm>
#include <cstring>

#include "quant/blocks.h"

namespace qwen35 {

using kel::QuantType;

size_t rowCount(const kel::TensorView& weights) {
  size_t rows = 1;
  for (size_t d = 1; d < std::min<size_t>(weights.rank, 4); ++d) {
    rows *= weights.dims[d];
  }
  return rows;
}

size_t rowBytes(QuantType type, size_t cols) {
  if (!kel::hasMatmul(type)) {
    return 0;
  }
  const kel::quant::BlockFormat format = kel::quant::blockFormat(type);
  return cols / format.elements * format.bytes;
}

void decodeRow(const KernelTable& kernels, QuantType type, const void* row, float* dst, size_t n) {
  using namespace kel::quant;
  const bool wholeBlocks = n % kBlockLen == 0;
  const bool wholeSuperBlocks = n % kSuperBlockLen == 0;
  switch (type) {
    case QuantType::F32:
      if (n > 0) {
        std::memcpy(dst, row, n * sizeof(float));
      }
      break;
    case QuantType::BF16:
      kernels.decodeBf16(row, dst, n);
      break;
    case QuantType::Q8_0:
      (wholeBlocks ? kernels.decodeQ80 : dequantQ80)(row, dst, n);
      break;
    case QuantType::Q4_K:
      (wholeSuperBlocks ? kernels.decodeQ4K : dequantQ4K)(row, dst, n);
      break;
    case QuantType::Q5_K:
      (wholeSuperBlocks ? kernels.decodeQ5K : dequantQ5K)(row, dst, n);
      break;
    default:
      break;
  }
}

}  // namespace qwen35
