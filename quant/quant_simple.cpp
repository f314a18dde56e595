// Encoders of the formats with one scale per block of 32: Q4_0 and Q8_0. Layouts: dequant.cpp.
#include <cmath>

#include "quant/block_fields.h"
#include "quant/block_rows.h"

namespace kel::quant {

namespace {

// The scale makes the element of largest magnitude, with its sign, exactly code 0 (-8 times d).
void encodeBlockQ40(const float* x, uint8_t* block) {
  float amax = 0;
  float max = 0;
  for (size_t j = 0; j < kBlockLen; ++j) {
    const float a = std::fabs(x[j]);
    if (a > amax) {  // strictly: the first of equals wins, which decides the sign of d
      amax = a;
      max = x[j];
    }
  }
  const float d = amax == 0 ? 0 : max * -0.125F;
  const float inverse = amax == 0 ? 0 : 1 / d;
  storeF16(block, d);

  // The 8.5 centres the code and rounds it in one fused step.
  const auto codeOf = [inverse](float v) {
    return truncateClamped(std::fma(v, inverse, 8.5F), 0, 15);
  };
  uint8_t* qs = block + 2;
  for (size_t i = 0; i < kBlockLen / 2; ++i) {
    qs[i] = static_cast<uint8_t>(codeOf(x[2 * i]) | codeOf(x[2 * i + 1]) << 4);
  }
}

void encodeBlockQ80(const float* x, uint8_t* block) {
  float amax = 0;
  for (size_t j = 0; j < kBlockLen; ++j) {
    const float a = std::fabs(x[j]);
    if (a > amax) {
      amax = a;
    }
  }
  const float d = amax / 127;
  storeF16(block, d);

  uint8_t* qs = block + 2;
  if (d == 0) {  // all zeros, or so small that the scale underflowed
    std::fill_n(qs, kBlockLen, uint8_t{0});
    return;
  }
  for (size_t j = 0; j < kBlockLen; ++j) {
    // A division, and by the scale before its rounding to half: a reciprocal gives other codes.
    qs[j] = static_cast<uint8_t>(roundClamped(x[j] / d, -127, 127));
  }
}

}  // namespace

void quantQ40(const float* src, void* dst, size_t n) {
  encodeBlocks<kBlockLen, kQ40Bytes>(src, dst, n, encodeBlockQ40);
}

void quantQ80(const float* src, void* dst, size_t n) {
  encodeBlocks<kBlockLen, kQ80Bytes>(src, dst, n, encodeBlockQ80);
}

}  // namespace kel::quant
