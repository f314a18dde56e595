#include "tests/quant/f16c.h"

#include <immintrin.h>

uint16_t halfByProcessor(float x) {
  const __m128i halves = _mm_cvtps_ph(_mm_set_ss(x), _MM_FROUND_TO_NEAREST_INT);
  return static_cast<uint16_t>(_mm_cvtsi128_si32(halves) & 0xFFFF);
}
