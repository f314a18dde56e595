// Shared by the decoders and encoders of this folder: access to half-precision fields of a block,
// and the way from a real number to a clamped integer code. Private to quant/.
#pragma once

#include <cmath>
#include <cstdint>

#include "quant/blocks.h"

namespace kel::quant {

// Half-precision field at p, little-endian, any alignment.
inline float loadF16(const uint8_t* p) {
  return f16ToF32(static_cast<uint16_t>(p[0] | p[1] << 8));
}

// Stores x as half precision at p and returns what a reader will get back.
inline float storeF16(uint8_t* p, float x) {
  const uint16_t h = f32ToF16(x);
  p[0] = static_cast<uint8_t>(h & 0xFF);
  p[1] = static_cast<uint8_t>(h >> 8);
  return f16ToF32(h);
}

// v truncated toward zero, then clamped to lo..hi. The clamp stands before the conversion, where it
// gives the same result for every number and also keeps infinities and values beyond int defined;
// NaN gives lo.
inline int truncateClamped(float v, int lo, int hi) {
  const auto least = static_cast<float>(lo);
  const auto most = static_cast<float>(hi);
  const float floored = v > least ? v : least;  // false for NaN
  return static_cast<int>(floored < most ? floored : most);
}

// v rounded half away from zero, then clamped to lo..hi. The half is added in single precision, so
// the largest float below 0.5 rounds to 1: stored codes depend on it.
inline int roundClamped(float v, int lo, int hi) {
  return truncateClamped(v + std::copysign(0.5F, v), lo, hi);
}

}  // namespace kel::quant
