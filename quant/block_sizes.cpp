// Storage sizes of element runs.
#include "quant/blocks.h"

namespace kel::quant {

namespace {

// ceil(n / blockLen) without forming n + blockLen, which could wrap.
size_t blockCount(size_t n, size_t blockLen) {
  return n / blockLen + (n % blockLen != 0 ? 1 : 0);
}

}  // namespace

size_t quantizedBytes(QuantType type, size_t n) {
  switch (type) {
    case QuantType::F32:
      return 4 * n;
    case QuantType::F16:
    case QuantType::BF16:
      return 2 * n;
    case QuantType::Q4_0:
      return kQ40Bytes * blockCount(n, kBlockLen);
    case QuantType::Q8_0:
      return kQ80Bytes * blockCount(n, kBlockLen);
    default:
      return quantizedBytesK(type, n);
  }
}

size_t quantizedBytesK(QuantType type, size_t n) {
  const size_t blocks = blockCount(n, kSuperBlockLen);
  switch (type) {
    case QuantType::Q4_K:
      return kQ4KBytes * blocks;
    case QuantType::Q5_K:
      return kQ5KBytes * blocks;
    case QuantType::Q6_K:
      return kQ6KBytes * blocks;
    case QuantType::IQ4_XS:
      return kIQ4XSBytes * blocks;
    default:
      return 0;
  }
}

}  // namespace kel::quant
