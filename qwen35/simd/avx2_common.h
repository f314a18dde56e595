// What the AVX2 files share, in an unnamed namespace, so that no copy compiled for wider
// instructions can serve the rest of the program.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

namespace qwen35::avx2 {

namespace {

inline float halfToFloat(uint16_t half) {
  const uint32_t magnitude = static_cast<uint32_t>(half & 0x7FFFu) << 13;
  const uint32_t sign = static_cast<uint32_t>(half & 0x8000u) << 16;
  float value;
  if ((half & 0x7C00u) == 0x7C00u) {
    const uint32_t bits = sign | magnitude | 0x7F800000u;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }
  // The exponents of the two formats lie 112 apart; the product is exact, for subnormals too.
  const uint32_t bits = sign | magnitude;
  std::memcpy(&value, &bits, sizeof value);
  return value * 0x1p112f;
}

inline float loadHalf(const uint8_t* at) {
  uint16_t half;
  std::memcpy(&half, at, sizeof half);
  return halfToFloat(half);
}

inline __m256i load32Bytes(const void* at) {
  return _mm256_loadu_si256(static_cast<const __m256i*>(at));
}

// Folds the lanes of a dot product by halves.
inline float fold(__m256 total) {
  const __m128 four = _mm_add_ps(_mm256_castps256_ps128(total), _mm256_extractf128_ps(total, 1));
  const __m128 two = _mm_add_ps(four, _mm_movehl_ps(four, four));
  return _mm_cvtss_f32(_mm_add_ss(two, _mm_movehdup_ps(two)));
}

}  // namespace

}  // namespace qwen35::avx2
