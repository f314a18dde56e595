#include "quant/block_sizes.h"

namespace kel::quant {

size_t quantizedBytes(QuantType type, size_t n) {
  const BlockFormat format = blockFormat(type);
  if (format.elements == 0) {
    return 0;
  }
  // ceil(n / elements) without forming n + elements, which could wrap.
  const size_t blocks = n / format.elements + (n % format.elements != 0 ? 1 : 0);
  return blocks * format.bytes;
}

size_t quantizedBytesK(QuantType type, size_t n) {
  return blockFormat(type).elements == kSuperBlockLen ? quantizedBytes(type, n) : 0;
}

}  // namespace kel::quant
