// bfloat16: the upper half of a binary32. Pure functions, any thread.
#pragma once

#include <bit>
#include <cstdint>

namespace kel::quant {

// The float whose upper 16 bits are h and whose lower 16 bits are zero; exact.
inline float bf16ToF32(uint16_t h) {
  return std::bit_cast<float>(static_cast<uint32_t>(h) << 16);
}

// The upper 16 bits of x, rounded to nearest, ties to even. Deliberate: NaN and infinity take the
// same path as every value, so a NaN can come out as an infinity or round into the sign bit.
inline uint16_t f32ToBf16(float x) {
  const auto bits = std::bit_cast<uint32_t>(x);
  return static_cast<uint16_t>((bits + 0x7FFFU + ((bits >> 16) & 1U)) >> 16);
}

}  // namespace kel::quant
