// Conversions between IEEE 754 binary32 and binary16, by bits: no processor support is needed and
// every machine gives the same result.
#include <bit>

#include "quant/blocks.h"

namespace kel::quant {

namespace {

// value / 2^shift to the nearest integer, ties to even; 1 <= shift <= 24.
uint32_t shiftRightToEven(uint32_t value, uint32_t shift) {
  const uint32_t kept = value >> shift;
  const uint32_t rest = value & ((1U << shift) - 1);
  const uint32_t half = 1U << (shift - 1);
  const bool up = rest > half || (rest == half && (kept & 1U) != 0);
  return kept + (up ? 1 : 0);
}

}  // namespace

uint16_t f32ToF16(float x) {
  const auto bits = std::bit_cast<uint32_t>(x);
  const uint32_t sign = (bits >> 16) & 0x8000;
  const uint32_t exponent = (bits >> 23) & 0xFF;
  const uint32_t mantissa = bits & 0x7FFFFF;

  uint32_t magnitude = 0;
  if (exponent == 255) {
    magnitude = mantissa != 0 ? 0x7E00 : 0x7C00;
  } else if (exponent > 142) {  // 65536 and above
    magnitude = 0x7C00;
  } else if (exponent >= 113) {
    // Normal. Exponent and mantissa are rounded as one number, so that a carry out of the mantissa
    // raises the exponent, and out of the largest one gives infinity.
    magnitude = shiftRightToEven(((exponent - 112) << 23) | mantissa, 13);
  } else if (exponent >= 102) {
    // Subnormal: the implicit bit becomes explicit. Rounding up to 0x400 is the smallest normal.
    magnitude = shiftRightToEven(mantissa | 0x800000, 126 - exponent);
  }
  return static_cast<uint16_t>(sign | magnitude);
}

float f16ToF32(uint16_t h) {
  const uint32_t sign = (h & 0x8000U) << 16;
  const uint32_t exponent = (h >> 10) & 0x1FU;
  uint32_t mantissa = h & 0x3FFU;

  uint32_t magnitude = 0;
  if (exponent == 31) {
    magnitude = 0x7F800000 | (mantissa << 13);
  } else if (exponent != 0) {
    magnitude = ((exponent + 112) << 23) | (mantissa << 13);
  } else if (mantissa != 0) {
    // Subnormal: normalise until the leading bit sits where binary32 leaves it implicit.
    uint32_t wideExponent = 113;
    while ((mantissa & 0x400) == 0) {
      mantissa <<= 1;
      --wideExponent;
    }
    magnitude = (wideExponent << 23) | ((mantissa & 0x3FF) << 13);
  }
  return std::bit_cast<float>(sign | magnitude);
}

}  // namespace kel::quant
