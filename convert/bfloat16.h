// bfloat16: the upper half of a binary32. Any thread.
#pragma once

#include <bit>
#include <cstdint>

namespace kel::convert {

// Exact.
inline float bfloat16ToFloat(uint16_t h) {
  return std::bit_cast<float>(uint32_t{h} << 16);
}

// Round to nearest, ties to even. For finite values: a NaN may come out as an infinity.
inline uint16_t floatToBfloat16(float x) {
  const auto bits = std::bit_cast<uint32_t>(x);
  return static_cast<uint16_t>((bits + 0x7FFF + ((bits >> 16) & 1)) >> 16);
}

}  // namespace kel::convert
